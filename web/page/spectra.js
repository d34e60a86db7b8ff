// What frequencies a point's audio has: now, and over time. Draws on a canvas.

import { spectrum } from "./fft.js";

const SIZE = 4096; // samples of a transform
const HOP = 1024; // samples from one column of the spectrogram to the next
const FLOOR_DBFS = -110;
const LOWEST_HZ = 20;
const LABELS_HZ = [50, 100, 200, 500, 1000, 2000, 5000, 10000, 20000];

const hz = (value) =>
  (value >= 1000 ? `${+(value / 1000).toFixed(2)} kHz` : `${value.toFixed(0)} Hz`);
const nyquistOf = ({ history }) => history.rate / 2;
const endOf = ({ history, view }) => view.frozenAt ?? history.end;

function levelsAt(history, end) {
  return spectrum(history.read(0, end - SIZE, SIZE));
}

/** Of a frequency on the logarithmic axis: its share of the width. */
const shareOf = (value, nyquist) =>
  Math.log(Math.max(value, LOWEST_HZ) / LOWEST_HZ) / Math.log(nyquist / LOWEST_HZ);

export function drawSpectrum(lane, context, { width, height }, colors) {
  const nyquist = nyquistOf(lane);
  const levels = (lane.levels = levelsAt(lane.history, endOf(lane)));
  context.strokeStyle = colors.wave;
  context.beginPath();
  levels.forEach((level, bin) => {
    context.lineTo(shareOf((bin / levels.length) * nyquist, nyquist) * width,
      (level / FLOOR_DBFS) * height);
  });
  context.stroke();
  const peak = levels.indexOf(Math.max(...levels.subarray(2)));
  lane.peakHz = (peak / levels.length) * nyquist;
}

export function spectrumScale(lane) {
  const nyquist = nyquistOf(lane);
  return {
    across: LABELS_HZ.filter((value) => value < nyquist)
      .map((value) => [shareOf(value, nyquist), hz(value)]),
    up: [0, -30, -60, -90].map((level) => [level / FLOOR_DBFS, `${level} dBFS`]),
  };
}

export function readSpectrum(lane, share) {
  const nyquist = nyquistOf(lane);
  const value = LOWEST_HZ * (nyquist / LOWEST_HZ) ** share;
  const level = lane.levels?.[Math.round((value / nyquist) * lane.levels.length)];
  return { value, text: `${hz(value)}, ${level?.toFixed(1) ?? "no"} dBFS` };
}

export const betweenSpectrum = (one, other) => `Δ ${hz(Math.abs(one - other))}`;

/** Dark blue to yellow, as the level's share of the scale grows. */
function colorOf(share) {
  return [255 * share ** 2, 255 * share ** 4, 255 * Math.sqrt(share) * (1 - share), 255];
}

function drawColumn(picture, levels, x, height) {
  const column = picture.createImageData(1, height);
  for (let y = 0; y < height; ++y) {
    const bin = Math.floor(((height - 0.5 - y) / height) * levels.length);
    const share = Math.min(1, Math.max(0, 1 - levels[bin] / FLOOR_DBFS));
    column.data.set(colorOf(share), 4 * y);
  }
  picture.putImageData(column, x, 0);
}

/** The picture is kept beside the canvas, and a column added to it for each HOP new samples. */
export function drawSpectrogram(lane, context, { width, height }) {
  lane.picture ??= document.createElement("canvas");
  const end = endOf(lane);
  if (lane.picture.width !== width || lane.picture.height !== height || end < lane.drawnTo) {
    Object.assign(lane.picture, { width, height });
    lane.drawnTo = 0;
  }
  const picture = lane.picture.getContext("2d", { willReadFrequently: true });
  const behind = Math.floor((end - lane.drawnTo) / HOP);
  lane.drawnTo += behind * HOP;
  const kept = Math.ceil((lane.drawnTo - lane.history.begin) / HOP);
  const columns = Math.min(width, behind, kept);
  if (columns > 0) picture.drawImage(lane.picture, -columns, 0);
  for (let i = columns - 1; i >= 0; --i) {
    drawColumn(picture, levelsAt(lane.history, lane.drawnTo - i * HOP), width - 1 - i, height);
  }
  context.drawImage(lane.picture, 0, 0);
}

export function spectrogramScale(lane, { width }) {
  const nyquist = nyquistOf(lane);
  const seconds = (width * HOP) / lane.history.rate;
  return {
    across: [0, 0.5].map((share) => [share, `-${(seconds * (1 - share)).toFixed(1)} s`]),
    up: [0, 0.25, 0.5, 0.75].map((share) => [share, hz(nyquist * (1 - share))]),
    ink: "white", // the picture is dark in both schemes
  };
}

export function readSpectrogram(lane, share) {
  const seconds = ((1 - share) * (lane.picture?.width ?? 0) * HOP) / lane.history.rate;
  return { value: seconds, text: `${seconds.toFixed(2)} s ago` };
}

export const betweenSpectrogram = (one, other) => `Δ ${Math.abs(one - other).toFixed(2)} s`;
