// Audio as kvoxweb sends it, and the last seconds of it. No page, no network.

const HEADER = 48;
const INTEGER = 0;
const FLOAT = 1;

/** The values of mu-law's 256 bytes. */
const MU_LAW = Float32Array.from({ length: 256 }, (_, byte) => {
  const bits = ~byte & 0xff;
  const magnitude = (((bits & 15) << 3) + 132 << (bits >> 4 & 7)) - 132;
  return (bits & 0x80 ? -magnitude : magnitude) / 32768;
});

/** How to read one sample at a byte offset; full scale is 1. */
function reader(view, bits, encoding) {
  if (encoding === FLOAT) return (at) => view.getFloat32(at, true);
  if (encoding !== INTEGER) return (at) => MU_LAW[view.getUint8(at)];
  switch (bits) {
    case 8: return (at) => view.getInt8(at) / 128;
    case 16: return (at) => view.getInt16(at, true) / 32768;
    case 24: return (at) => (view.getInt8(at + 2) * 65536 + view.getUint16(at, true)) / 8388608;
    default: return (at) => view.getInt32(at, true) / 2147483648;
  }
}

function parseRecord(view, at, end) {
  const channels = view.getUint16(at + 40, true);
  const bits = view.getUint8(at + 42);
  const encoding = view.getUint8(at + 43);
  const width = bits / 8;
  const frames = Math.floor((end - at - HEADER) / (width * channels));
  const sample = reader(view, bits, encoding);
  const samples = Array.from({ length: channels }, () => new Float32Array(frames));
  let from = at + HEADER;
  for (let frame = 0; frame < frames; ++frame) {
    for (let channel = 0; channel < channels; ++channel, from += width) {
      samples[channel][frame] = sample(from);
    }
  }
  return {
    point: view.getUint32(at + 4, true),
    position: Number(view.getBigUint64(at + 8, true)),
    missing: Number(view.getBigUint64(at + 16, true)),
    rate: view.getUint32(at + 36, true),
    samples,
  };
}

/**
 * The records of a binary message: {point, position, missing, rate, samples}; samples is a
 * Float32Array a channel, with 1 as full scale.
 */
export function parseAudio(buffer) {
  const view = new DataView(buffer);
  const records = [];
  for (let at = 0; at + HEADER <= buffer.byteLength;) {
    const size = view.getUint32(at, true);
    if (size < HEADER || at + size > buffer.byteLength) break;
    records.push(parseRecord(view, at, at + size));
    at += size;
  }
  return records;
}

/** The last seconds of a point. Positions are frames since the watch began. */
export class History {
  rate = 0;
  end = 0; // the position after the last frame
  gaps = []; // {position, frames}, oldest first
  #seconds;
  #channels = [];

  constructor(seconds) {
    this.#seconds = seconds;
  }

  get channels() {
    return this.#channels.length;
  }

  /** The first position that is kept. */
  get begin() {
    return Math.max(0, this.end - (this.#channels[0]?.length ?? 0));
  }

  append({ position, rate, samples }) {
    if (rate !== this.rate || samples.length !== this.channels || position < this.end) {
      this.rate = rate;
      this.#channels = samples.map(() => new Float32Array(Math.ceil(rate * this.#seconds)));
      this.gaps = [];
      this.end = position;
    }
    const gap = Math.min(position - this.end, this.#channels[0].length);
    if (gap > 0) {
      for (const kept of this.#channels) this.#copy(position - gap, new Float32Array(gap), kept);
      this.gaps.push({ position: position - gap, frames: gap });
    }
    samples.forEach((values, channel) => this.#copy(position, values, this.#channels[channel]));
    this.end = position + samples[0].length;
    while (this.gaps.length && this.gaps[0].position < this.begin) this.gaps.shift();
  }

  /** `frames` from a position on of a channel; zero where nothing is kept. */
  read(channel, position, frames) {
    const values = new Float32Array(frames);
    const kept = this.#channels[channel];
    if (!kept) return values;
    const from = Math.max(position, this.begin);
    const count = Math.min(position + frames, this.end) - from;
    if (count <= 0) return values;
    const first = from % kept.length;
    const part = kept.subarray(first, Math.min(kept.length, first + count));
    values.set(part, from - position);
    values.set(kept.subarray(0, count - part.length), from - position + part.length);
    return values;
  }

  #copy(position, values, kept) {
    const first = position % kept.length;
    const fits = Math.min(values.length, kept.length - first);
    kept.set(values.subarray(0, fits), first);
    if (fits < values.length) kept.set(values.subarray(fits, fits + kept.length), 0);
  }
}
