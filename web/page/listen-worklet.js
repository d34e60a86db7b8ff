// Plays blocks as they come, from a queue that evens out the network's jitter. Every sample is
// played as it is; where none is there the sound fades out and in again instead of clicking.

const FADE = 128; // frames
const REPORT_EVERY = 32; // calls

/** Lets the begin of samples, an array a channel, swell from silence; or sink into it. */
function fade(samples, sinks = false) {
  for (const channel of samples) {
    for (let i = 0; i < Math.min(FADE, channel.length); ++i) {
      channel[i] *= (sinks ? FADE - i : i) / FADE;
    }
  }
}

class Listen extends AudioWorkletProcessor {
  #blocks = [];
  #at = 0; // in the first block
  #queued = 0; // frames
  #playing = false;
  #fadesIn = false; // with the next samples
  #last = [];
  #underruns = 0;
  #calls = 0;

  constructor({ processorOptions: { target } }) {
    super();
    this.target = target;
    this.port.onmessage = ({ data: { samples, missing } }) => {
      if (missing > 0) {
        fade(samples);
        if (this.#blocks.length > 1) fade(this.#blocks.at(-1).map((it) => it.subarray(-FADE)), true);
      }
      this.#blocks.push(samples);
      this.#queued += samples[0].length;
      this.#catchUp();
    };
  }

  /** Drops the oldest blocks of a queue that has become far too long. */
  #catchUp() {
    if (this.#queued < 4 * this.target) return;
    while (this.#queued > 2 * this.target && this.#blocks.length > 1) {
      this.#queued -= this.#blocks.shift()[0].length - this.#at;
      this.#at = 0;
    }
    this.#fadesIn = true;
  }

  process(_, [output]) {
    const frames = output[0].length;
    if (!this.#playing && this.#queued >= this.target) {
      this.#playing = true;
      this.#fadesIn = true;
    }
    if (this.#playing && this.#queued < frames) {
      this.#playing = false;
      ++this.#underruns;
    }
    if (this.#playing) this.#play(output, frames);
    else this.#fadeOut(output, frames);
    if (++this.#calls % REPORT_EVERY === 0) {
      this.port.postMessage({ queued: this.#queued, underruns: this.#underruns });
    }
    return true;
  }

  #play(output, frames) {
    for (let done = 0; done < frames;) {
      const block = this.#blocks[0];
      const count = Math.min(frames - done, block[0].length - this.#at);
      output.forEach((to, channel) => {
        const from = block[Math.min(channel, block.length - 1)];
        to.set(from.subarray(this.#at, this.#at + count), done);
      });
      done += count;
      this.#at += count;
      this.#queued -= count;
      if (this.#at === block[0].length) {
        this.#blocks.shift();
        this.#at = 0;
      }
    }
    if (this.#fadesIn) fade(output);
    this.#fadesIn = false;
    this.#last = output.map((to) => to[frames - 1]);
  }

  #fadeOut(output, frames) {
    output.forEach((to, channel) => {
      const last = this.#last[channel] ?? 0;
      for (let i = 0; i < Math.min(FADE, frames); ++i) to[i] = last * (1 - i / FADE);
    });
    this.#last = [];
  }
}

registerProcessor("kvox-listen", Listen);
