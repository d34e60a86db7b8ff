// The wave of a point's audio: over a time, triggered, or as it comes. Draws on a canvas.

const GAP_PX = 1; // a gap is at least that wide

/** The smallest and the largest sample in each of `columns` parts. */
function extremes(values, columns) {
  const pairs = [];
  for (let column = 0; column < columns; ++column) {
    const from = Math.floor((column * values.length) / columns);
    const until = Math.max(from + 1, Math.floor(((column + 1) * values.length) / columns));
    let [low, high] = [Infinity, -Infinity];
    for (let i = from; i < until; ++i) {
      low = Math.min(low, values[i]);
      high = Math.max(high, values[i]);
    }
    pairs.push([low, high]);
  }
  return pairs;
}

/**
 * The last position where the first channel crosses `level` upwards (`slope` 1) or downwards (-1)
 * and that has `frames` frames after it; the last `frames` frames where there is none.
 */
function findTrigger(history, frames, { slope, level }) {
  const latest = history.end - frames;
  const searched = Math.min(frames + history.rate / 10, latest - history.begin);
  if (searched <= 1) return latest;
  const values = history.read(0, latest - searched, searched);
  for (let i = values.length - 1; i > 0; --i) {
    const [before, now] = [slope * (values[i - 1] - level), slope * (values[i] - level)];
    if (before < 0 && now >= 0) return Math.round(latest - searched + i);
  }
  return latest;
}

/** Which part of the history a lane shows: {begin, frames}. */
function windowOf({ history, view, head }) {
  const frames = Math.max(2, Math.round((view.spanMs * history.rate) / 1000));
  if (view.frozenAt !== null) return { begin: view.frozenAt - frames, frames };
  if (view.kind === "rolling") return { begin: head - frames, frames };
  const { trigger } = view;
  return { begin: trigger ? findTrigger(history, frames, trigger) : history.end - frames, frames };
}

export function drawWave(lane, context, { width, height }, colors) {
  const { history, view } = lane;
  const { begin, frames } = (lane.shown = windowOf(lane)); // the cursors read it
  context.fillStyle = colors.bad;
  for (const gap of history.gaps) {
    const x = ((gap.position - begin) / frames) * width;
    context.fillRect(x, 0, Math.max(GAP_PX, (gap.frames / frames) * width), height);
  }
  const y = (value) => (height / 2) * (1 - value * view.gain);
  for (let channel = history.channels - 1; channel >= 0; --channel) {
    context.strokeStyle = channel === 0 ? colors.wave : colors.second;
    context.beginPath();
    const values = history.read(channel, begin, frames);
    if (frames < width) {
      values.forEach((value, i) => context.lineTo(((i + 0.5) / frames) * width, y(value)));
    } else {
      extremes(values, width).forEach(([low, high], x) => {
        context.lineTo(x, y(high));
        context.lineTo(x, y(low));
      });
    }
    context.stroke();
  }
}

const dbfs = (value) => 20 * Math.log10(Math.max(Math.abs(value), 1e-6));

/** Labels of the axes. */
export function waveScale({ view }) {
  const half = dbfs(0.5 / view.gain);
  return {
    across: [0, 0.25, 0.5, 0.75, 1].map((share) => [share, `${share * view.spanMs} ms`]),
    up: [[0, `${dbfs(1 / view.gain).toFixed(0)} dBFS`], [0.25, `${half.toFixed(0)} dBFS`],
      [0.5, "0"]],
  };
}

/** What is at a share of the width: {value, text}; value is the time in ms. */
export function readWave(lane, share) {
  const { history, view, shown: { begin, frames } } = lane;
  const [sample] = history.read(0, begin + Math.min(frames - 1, Math.floor(share * frames)), 1);
  const ms = share * view.spanMs;
  return { value: ms, text: `${ms.toFixed(2)} ms, ${dbfs(sample).toFixed(1)} dBFS` };
}

/** What is between two cursors, by their values. */
export function betweenWave(one, other) {
  const ms = Math.abs(one - other);
  return `Δ ${ms.toFixed(2)} ms` + (ms > 0 ? ` = ${(1000 / ms).toFixed(1)} Hz` : "");
}
