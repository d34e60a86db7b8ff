// Level meters: a bar a channel with peak, RMS, hold and clip marks.

const FLOOR_DBFS = -60;
const HOLD_MS = 1500;

const share = (dbfs) => Math.min(1, Math.max(0, 1 - dbfs / FLOOR_DBFS));

export class Meter {
  #canvas;
  #text;
  #hold = []; // {dbfs, untilMs} a channel
  #levels = null;
  #isNew = false;

  constructor(parent, name) {
    this.#canvas = document.createElement("canvas");
    this.#canvas.className = "meter";
    this.#canvas.setAttribute("role", "meter");
    this.#canvas.setAttribute("aria-label", `Level of ${name}`);
    this.#canvas.setAttribute("aria-valuemin", FLOOR_DBFS);
    this.#canvas.setAttribute("aria-valuemax", 0);
    this.#text = document.createElement("span");
    this.#text.className = "figures";
    parent.append(this.#canvas, this.#text);
  }

  /** `levels` as the message has them. */
  set(levels, nowMs) {
    this.#levels = levels;
    this.#isNew = true;
    levels.peak.forEach((dbfs, channel) => {
      const hold = this.#hold[channel];
      if (!hold || dbfs >= hold.dbfs || nowMs > hold.untilMs) {
        this.#hold[channel] = { dbfs, untilMs: nowMs + HOLD_MS };
      }
    });
  }

  /** Nothing is known any more. */
  clear() {
    this.#levels = null;
    this.#text.textContent = "";
    this.#canvas.width = 0;
  }

  draw(colors) {
    if (!this.#levels || !this.#isNew) return;
    this.#isNew = false;
    const { peak, rms, clipped, missing } = this.#levels;
    const canvas = this.#canvas;
    const width = (canvas.width = canvas.clientWidth * devicePixelRatio);
    const height = (canvas.height = canvas.clientHeight * devicePixelRatio);
    const context = canvas.getContext("2d");
    const row = height / peak.length;
    peak.forEach((dbfs, channel) => {
      const y = channel * row;
      context.fillStyle = colors.faint;
      context.fillRect(0, y, width * share(dbfs), row - 2);
      context.fillStyle = colors.wave;
      context.fillRect(0, y, width * share(rms[channel]), row - 2);
      context.fillStyle = clipped[channel] > 0 ? colors.bad : colors.text;
      context.fillRect(width * share(this.#hold[channel].dbfs) - 3, y, 3, row - 2);
    });
    const loudest = Math.max(...peak);
    canvas.setAttribute("aria-valuenow", Math.max(FLOOR_DBFS, loudest).toFixed(1));
    const clips = clipped.reduce((sum, count) => sum + count, 0);
    this.#text.textContent = `peak ${loudest.toFixed(1)} dBFS, rms ` +
      `${Math.max(...rms).toFixed(1)}` + (clips ? `, ${clips} clipped` : "") +
      (missing ? `, ${missing} frames missing` : "");
  }
}
