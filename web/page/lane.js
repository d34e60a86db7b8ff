// A lane: a point's audio as a scope, a spectrum or a spectrogram, with its meter and listening.

import { History } from "./audio.js";
import { Listener } from "./listen.js";
import { Meter } from "./meters.js";
import { betweenWave, drawWave, readWave, waveScale } from "./scope.js";
import {
  betweenSpectrogram, betweenSpectrum, drawSpectrogram, drawSpectrum, readSpectrogram,
  readSpectrum, spectrogramScale, spectrumScale,
} from "./spectra.js";
import { make, makeButton, makeSelect, makeToggle } from "./tables.js";

const KEEP_S = 12;
const SPANS_MS = [1, 2, 5, 10, 20, 50, 100, 500, 1000, 5000, 10000];
const GAINS_DB = [0, 12, 24, 40, 60];
const LEVELS_DBFS = [-60, -40, -20, -6];

const wave = { draw: drawWave, scale: waveScale, read: readWave, between: betweenWave };
const VIEWS = {
  scope: wave,
  rolling: wave,
  spectrum: {
    draw: drawSpectrum, scale: spectrumScale, read: readSpectrum, between: betweenSpectrum,
  },
  spectrogram: {
    draw: drawSpectrogram, scale: spectrogramScale, read: readSpectrogram,
    between: betweenSpectrogram,
  },
};

const LONGEST_LAG_S = 0.2;

const amplitude = (dbfs) => 10 ** (dbfs / 20);

/** What a scope begins at, by the words that are chosen from. */
const TRIGGERS = {
  "rising zero": { slope: 1, level: 0 },
  "falling zero": { slope: -1, level: 0 },
  ...Object.fromEntries(LEVELS_DBFS.map((dbfs) =>
    [`rising ${dbfs} dBFS`, { slope: 1, level: amplitude(dbfs) }])),
  none: null,
};

export class Lane {
  /** frozenAt: the last position that is shown, or null for the latest. gain is a factor. */
  view = {
    kind: "scope", spanMs: 20, gain: 1, trigger: TRIGGERS["rising zero"], frozenAt: null,
  };
  listener = new Listener();
  peakHz = 0; // of the spectrum
  error = "";
  drawnTo = 0; // the position that the spectrogram's picture ends at
  head = 0; // the position that what rolls ends at
  #headMs = 0;
  #keepSeconds;
  #cursors = [null, null]; // shares of the width
  #drawn = "";
  #size = { width: 0, height: 0 }; // of the canvas, in pixels
  #visible = true;

  /**
   * `onClose` is of a lane whose audio goes on. One without it shows audio that is over; it keeps
   * `keepSeconds` of it.
   */
  constructor(parent, point, { onClose = null, keepSeconds = KEEP_S } = {}) {
    this.point = point;
    this.#keepSeconds = keepSeconds;
    this.history = new History(keepSeconds);
    this.element = make("article", { className: "lane" });
    this.element.dataset.point = point;
    const head = make("div", { className: "head" }, make("h2", { textContent: point }));
    this.element.append(head);
    this.#addControls(head, onClose);
    this.meter = new Meter(head, point);
    this.note = make("span", { className: "figures" });
    head.append(this.note);
    this.#addCanvas();
    this.readout = make("output", { className: "figures", ariaLive: "off" });
    this.readout.setAttribute("aria-label", `Cursors of ${point}`);
    this.element.append(this.readout);
    this.#observe();
    parent.append(this.element);
  }

  /** Audio that is over: a record, and its gaps as {position, frames}. */
  show(record, gaps) {
    this.history.append(record);
    this.history.gaps = gaps;
    this.#freeze(true);
  }

  add(record) {
    if (this.view.frozenAt === null) this.history.append(record);
    this.listener.add(record);
  }

  draw(colors) {
    if (!this.#visible) return;
    this.meter.draw(colors);
    const note = this.error || this.listener.text();
    if (this.note.textContent !== note) this.note.textContent = note;
    const { canvas, view, history } = this;
    const { width, height } = this.#size;
    if (width === 0 || history.end === 0) return;
    if (view.kind === "rolling") this.#moveHead(performance.now());
    const state =
      JSON.stringify([width, height, history.end, this.head, view, this.#cursors, colors]);
    if (state === this.#drawn) return;
    this.#drawn = state;
    const context = canvas.getContext("2d");
    if (canvas.width !== width || canvas.height !== height) Object.assign(canvas, { width, height });
    else context.clearRect(0, 0, width, height);
    const { draw, scale } = VIEWS[view.kind];
    draw(this, context, canvas, colors);
    this.#drawScale(context, colors, scale(this, canvas));
    this.#drawCursors(context, colors);
  }

  /** Audio comes in bursts; what rolls follows it evenly. */
  #moveHead(nowMs) {
    const { end, rate } = this.history;
    const moved = this.head + ((nowMs - this.#headMs) * rate) / 1000;
    this.head = Math.round(Math.min(end, Math.max(moved, end - LONGEST_LAG_S * rate)));
    this.#headMs = nowMs;
  }

  #addControls(head, onClose) {
    const { view, point } = this;
    const set = (name) => (value) => { view[name] = value; };
    const choose = (name, text, choices) =>
      makeSelect(`${text} of ${point}`, choices, view[name], set(name));
    head.append(
      choose("kind", "View", Object.keys(VIEWS).map((name) => [name, name])),
      choose("spanMs", "Time",
        SPANS_MS.map((ms) => [ms < 1000 ? `${ms} ms` : `${ms / 1000} s`, ms])),
      choose("gain", "Gain", GAINS_DB.map((db) => [`+${db} dB`, amplitude(db)])),
      choose("trigger", "Trigger", Object.entries(TRIGGERS)));
    if (!onClose) return;
    head.append(
      makeToggle("Pause", (on) => this.#freeze(on), `Pause ${point}`),
      makeToggle("Listen", (on) => (on ? this.listener.start() : this.listener.stop()),
        `Listen to ${point}`),
      makeButton("Close", onClose, `Close ${point}`));
  }

  #addCanvas() {
    this.slider = make("input", { type: "range", hidden: true });
    this.slider.ariaLabel = `Time within the kept audio of ${this.point}`;
    this.slider.addEventListener("input", () => {
      this.view.frozenAt = Number(this.slider.value);
    });
    this.canvas = make("canvas", { tabIndex: 0 });
    this.canvas.setAttribute("role", "img");
    this.canvas.ariaLabel = `Audio of ${this.point}; arrow keys move the cursors`;
    this.canvas.addEventListener("click", (event) => {
      this.#cursors[event.shiftKey ? 1 : 0] = event.offsetX / this.canvas.clientWidth;
    });
    this.canvas.addEventListener("keydown", (event) => this.#press(event));
    this.element.append(this.slider, this.canvas);
  }

  #observe() {
    new IntersectionObserver(([{ isIntersecting }]) => { this.#visible = isIntersecting; })
      .observe(this.element);
    new ResizeObserver(([{ contentRect }]) => {
      this.#size = {
        width: Math.round(contentRect.width * devicePixelRatio),
        height: Math.round(contentRect.height * devicePixelRatio),
      };
    }).observe(this.canvas);
  }

  #press(event) {
    const steps = { ArrowLeft: -0.005, ArrowRight: 0.005 };
    if (event.key === "Escape") this.#cursors = [null, null];
    if (!(event.key in steps)) return;
    const which = event.shiftKey ? 1 : 0;
    const moved = (this.#cursors[which] ?? 0.5) + steps[event.key];
    this.#cursors[which] = Math.min(1, Math.max(0, moved));
    event.preventDefault();
  }

  /** While it is on, nothing is added; then it begins anew. */
  #freeze(on) {
    const { begin, end } = this.history;
    this.slider.hidden = !on;
    Object.assign(this.slider, { min: begin, max: end, value: end });
    this.view.frozenAt = on ? end : null;
    if (!on) this.history = new History(this.#keepSeconds);
  }

  #drawScale(context, colors, { across, up, ink = colors.text }) {
    const { width, height } = context.canvas;
    context.font = `${11 * devicePixelRatio}px sans-serif`;
    context.strokeStyle = colors.faint;
    context.fillStyle = ink;
    context.globalAlpha = 0.8;
    context.beginPath();
    for (const [share, text] of across) {
      context.moveTo(share * width, 0);
      context.lineTo(share * width, height);
      context.textAlign = share > 0.9 ? "right" : "left";
      context.fillText(text, share * width + (share > 0.9 ? -3 : 3), height - 4);
    }
    context.textAlign = "left";
    for (const [share, text] of up) {
      context.moveTo(0, share * height);
      context.lineTo(width, share * height);
      context.fillText(text, 3, share * height + 12 * devicePixelRatio);
    }
    context.stroke();
    context.globalAlpha = 1;
  }

  #drawCursors(context, colors) {
    const { width, height } = context.canvas;
    const { read, between } = VIEWS[this.view.kind];
    const found = this.#cursors.filter((share) => share !== null).map((share) => {
      context.fillStyle = colors.text;
      context.fillRect(share * width, 0, 1, height);
      return read(this, share);
    });
    const texts = found.map(({ text }) => text);
    if (found.length === 2) texts.push(between(found[0].value, found[1].value));
    const text = texts.join("  ·  ");
    if (this.readout.textContent !== text) this.readout.textContent = text;
  }
}
