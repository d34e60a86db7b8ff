// The spectrum of real samples. No page, no network.

const plans = new Map();

/** What a transform of `size`, a power of two, needs to know. */
function planOf(size) {
  let plan = plans.get(size);
  if (plan) return plan;
  const angle = (2 * Math.PI) / size;
  plan = {
    window: Float64Array.from({ length: size }, (_, i) => 0.5 - 0.5 * Math.cos(angle * i)),
    cos: Float64Array.from({ length: size / 2 }, (_, i) => Math.cos(angle * i)),
    sin: Float64Array.from({ length: size / 2 }, (_, i) => Math.sin(angle * i)),
    reversed: new Uint32Array(size),
  };
  const bits = Math.log2(size);
  for (let i = 0; i < size; ++i) {
    plan.reversed[i] = (plan.reversed[i >> 1] >> 1) | ((i & 1) << (bits - 1));
  }
  plans.set(size, plan);
  return plan;
}

function transform(real, imaginary, { cos, sin }) {
  const size = real.length;
  for (let half = 1; half < size; half *= 2) {
    const step = size / (2 * half);
    for (let begin = 0; begin < size; begin += 2 * half) {
      for (let k = 0; k < half; ++k) {
        const [a, b] = [begin + k, begin + k + half];
        const [c, s] = [cos[k * step], -sin[k * step]];
        const re = real[b] * c - imaginary[b] * s;
        const im = real[b] * s + imaginary[b] * c;
        real[b] = real[a] - re;
        imaginary[b] = imaginary[a] - im;
        real[a] += re;
        imaginary[a] += im;
      }
    }
  }
}

/**
 * The levels of the bins 0 to size/2 - 1 in dBFS, of as many samples as a power of two; a sine of
 * full scale in the middle of a bin is 0 dBFS. A Hann window is applied.
 */
export function spectrum(samples) {
  const size = samples.length;
  const plan = planOf(size);
  const real = new Float64Array(size);
  const imaginary = new Float64Array(size);
  for (let i = 0; i < size; ++i) {
    const from = plan.reversed[i];
    real[i] = samples[from] * plan.window[from];
  }
  transform(real, imaginary, plan);
  const levels = new Float32Array(size / 2);
  for (let bin = 0; bin < levels.length; ++bin) {
    const magnitude = Math.hypot(real[bin], imaginary[bin]) * (bin ? 4 : 2) / size;
    levels[bin] = 20 * Math.log10(Math.max(magnitude, 1e-8));
  }
  return levels;
}
