// Plays a point's audio in the browser.

/** The audio that is queued before it is played, so that a late message is not heard. */
const TARGET_S = 0.08;

export class Listener {
  #context = null;
  #node = null;
  #queuedFrames = 0;
  #underruns = 0;
  #isOpening = false;

  start() {
    this.#context ??= new AudioContext({ latencyHint: "interactive" }); // while there is a click
  }

  stop() {
    this.#context?.close();
    this.#context = this.#node = null;
    this.#queuedFrames = this.#underruns = 0;
  }

  /** A record of parseAudio(). */
  add({ rate, samples, missing }) {
    if (!this.#context) return;
    if (this.#node && this.#context.sampleRate !== rate) {
      this.#node.disconnect();
      this.#node = null;
    }
    if (!this.#node && !this.#isOpening) this.#open(rate, samples.length);
    this.#node?.port.postMessage({ samples, missing });
  }

  /** The audio node that plays, to be connected to others; null while nothing is played. */
  get output() {
    return this.#node;
  }

  /** For people: how far behind it plays. */
  text() {
    if (!this.#node) return "";
    const queue = this.#queuedFrames / this.#context.sampleRate;
    const latency = queue + (this.#context.outputLatency || this.#context.baseLatency);
    return `${Math.round(1000 * latency)} ms behind` +
      (this.#underruns ? `, ${this.#underruns} interruptions` : "");
  }

  /** With the stream's sample rate, so that nothing is converted. */
  async #open(rate, channels) {
    this.#isOpening = true;
    try {
      if (this.#context.sampleRate !== rate) {
        this.#context.close();
        this.#context = new AudioContext({ latencyHint: "interactive", sampleRate: rate });
      }
      const context = this.#context;
      await context.audioWorklet.addModule("listen-worklet.js");
      if (context === this.#context) this.#join(context, channels);
    } finally {
      this.#isOpening = false;
    }
  }

  #join(context, channels) {
    this.#node = new AudioWorkletNode(context, "kvox-listen", {
      outputChannelCount: [channels],
      processorOptions: { target: Math.round(TARGET_S * context.sampleRate) },
    });
    this.#node.port.onmessage = ({ data }) => {
      this.#queuedFrames = data.queued;
      this.#underruns = data.underruns;
    };
    this.#node.connect(context.destination);
  }
}
