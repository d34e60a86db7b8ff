// When packets came: a dot for each, how much too late or too early, and why some were lost.

import { makeButton } from "./tables.js";

const KEEP_MS = 120_000;
const FIELDS = ["number", "time", "error", "loss", "missing", "reason", "dispatch", "client"];
const BARS = 41; // of the histogram
const DOTS_SHARE = 0.82; // of the width; the histogram has the rest

const isBad = ({ loss, missing }) => loss !== null || missing > 0;

/** The packets of one stream, and how they are drawn. Times are in ms, errors in us. */
export class Timing {
  packets = [];
  wallMs = 0; // to be added to their times for the wall clock
  #canvas;
  #note;
  #onPick;
  #isNew = false;

  /** `onPick` is called with the index of a packet that is clicked. */
  constructor(parent, stream, onPick) {
    this.#onPick = onPick;
    const article = document.createElement("article");
    article.className = "lane timing";
    article.dataset.stream = stream;
    const title = article.appendChild(document.createElement("h2"));
    title.textContent = `Arrivals of ${stream}`;
    this.#note = article.appendChild(document.createElement("span"));
    this.#note.className = "figures";
    article.append(makeButton("Explain the last loss", () => {
      const last = this.packets.findLastIndex(isBad);
      if (last >= 0) onPick(last);
    }));
    this.#canvas = article.appendChild(document.createElement("canvas"));
    this.#canvas.setAttribute("role", "img");
    this.#canvas.setAttribute("aria-label", `When the packets of ${stream} came`);
    this.#canvas.addEventListener("click", (event) => this.#pick(event));
    this.element = article;
    parent.append(article);
  }

  /** Rows as the message has them. */
  add(rows, wallMs) {
    this.wallMs = wallMs;
    this.#isNew = true;
    const last = this.packets.at(-1)?.time ?? 0;
    for (const row of rows.filter(([, time]) => time > last)) {
      this.packets.push(Object.fromEntries(FIELDS.map((name, column) => [name, row[column]])));
    }
    if (!this.packets.length) return;
    const begin = this.packets.at(-1).time - KEEP_MS;
    this.packets.splice(0, this.packets.findIndex(({ time }) => time >= begin));
  }

  draw(colors) {
    const canvas = this.#canvas;
    if (!this.#isNew || canvas.clientWidth === 0) return;
    this.#isNew = false;
    const width = (canvas.width = Math.round(canvas.clientWidth * devicePixelRatio));
    const height = (canvas.height = Math.round(canvas.clientHeight * devicePixelRatio));
    const context = canvas.getContext("2d");
    const scale = this.#scale();
    const dots = width * DOTS_SHARE;
    context.fillStyle = colors.faint;
    context.fillRect(0, height / 2, dots, 1);
    for (const packet of this.packets) {
      const [x, y] = this.#place(packet, scale, dots, height);
      const bad = isBad(packet);
      context.fillStyle = bad ? colors.bad : colors.wave;
      if (bad) context.fillRect(x - 1, 0, 2, height);
      else context.fillRect(x - 1, y - 1, 3, 3);
    }
    this.#drawHistogram(context, scale, dots, { width, height }, colors);
    this.#note.textContent = this.#figures(scale);
  }

  /** The error at the top: what nearly all packets keep to. */
  #scale() {
    const errors = this.packets.map((packet) => Math.abs(packet.error)).sort((a, b) => a - b);
    return Math.max(500, errors[Math.floor(errors.length * 0.99)] * 1.2);
  }

  #place(packet, scale, width, height) {
    const end = this.packets.at(-1).time;
    const x = width * (1 - (end - packet.time) / KEEP_MS);
    const share = Math.max(-1, Math.min(1, packet.error / scale));
    return [x, (height / 2) * (1 - share)];
  }

  #drawHistogram(context, scale, left, { width, height }, colors) {
    const counts = new Array(BARS).fill(0);
    for (const packet of this.packets) {
      const share = Math.max(-1, Math.min(1, packet.error / scale));
      ++counts[Math.round(((1 - share) / 2) * (BARS - 1))];
    }
    const most = Math.max(...counts.map(Math.log1p));
    context.fillStyle = colors.second;
    counts.forEach((count, bar) => {
      const long = (Math.log1p(count) / most) * (width - left - 8);
      context.fillRect(left + 8, (bar / BARS) * height, long, height / BARS - 1);
    });
  }

  #figures(scale) {
    const lost = this.packets.filter((packet) => packet.loss).length;
    const missed = this.packets.reduce((sum, { missing }) => sum + missing, 0);
    return `${this.packets.length} packets, ±${(scale / 1000).toFixed(1)} ms, ` +
      `${lost} lost, ${missed} missing`;
  }

  #pick(event) {
    const box = this.#canvas.getBoundingClientRect();
    const [x, y] = [event.clientX - box.left, event.clientY - box.top];
    const scale = this.#scale();
    let [best, nearest] = [-1, 100];
    this.packets.forEach((packet, index) => {
      const [px, py] = this.#place(packet, scale, box.width * DOTS_SHARE, box.height);
      const distance = (px - x) ** 2 + (isBad(packet) ? 0 : (py - y) ** 2);
      if (distance < nearest) [best, nearest] = [index, distance];
    });
    if (best >= 0) this.#onPick(best);
  }
}
