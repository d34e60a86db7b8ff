// Which streams have lost packets or clipped of late, and whether that is worth telling. No page.

const SHOWN_MS = 2000;
const TOLD_EVERY_MS = 5000;

/** Reasons that somebody wanted, or that a change of the set-up has. */
const WANTED = new Set(["no_route", "switched_off", "rewired"]);

/**
 * `tell` has lost(stream, packets) and skipped(blocks), which are called with how many there are
 * since the last call.
 */
export class Troubles {
  #tell;
  #skipped = { count: 0, untold: 0, toldMs: -Infinity };
  #lost = new Map(); // by stream: {count, untold, toldMs}
  #clipped = new Map();
  #until = new Map(); // until when a stream is shown as troubled

  constructor(tell) {
    this.#tell = tell;
  }

  /** Counters as the pulse has them. */
  count(streams, nowMs) {
    for (const { name, lost } of streams) {
      const count = Object.entries(lost).filter(([reason]) => !WANTED.has(reason))
        .reduce((sum, [, packets]) => sum + packets, 0);
      const known = this.#lost.get(name) ?? { count, untold: 0, toldMs: -Infinity };
      if (count > known.count) {
        known.untold += count - known.count;
        this.#until.set(name, nowMs + SHOWN_MS);
      }
      known.count = count; // of a new daemon it begins anew
      this.#lost.set(name, known);
    }
  }

  /** Levels as the message has them. */
  setLevels(levels, nowMs) {
    for (const [name, { clipped }] of Object.entries(levels)) {
      const count = clipped.reduce((sum, samples) => sum + samples, 0);
      if (count > (this.#clipped.get(name) ?? count)) this.#until.set(name, nowMs + SHOWN_MS);
      this.#clipped.set(name, count);
    }
  }

  /** How many blocks this page has missed since it was connected. */
  skip(count) {
    this.#skipped.untold += Math.max(0, count - this.#skipped.count);
    this.#skipped.count = count;
  }

  /** The streams that are in trouble now. Tells what has not been told. */
  now(nowMs) {
    const tellOf = (known, tell) => {
      if (known.untold === 0 || nowMs < known.toldMs + TOLD_EVERY_MS) return;
      tell(known.untold);
      Object.assign(known, { untold: 0, toldMs: nowMs });
    };
    for (const [name, known] of this.#lost) tellOf(known, (lost) => this.#tell.lost(name, lost));
    tellOf(this.#skipped, (blocks) => this.#tell.skipped(blocks));
    return new Set([...this.#until].filter(([, until]) => nowMs < until).map(([name]) => name));
  }
}
