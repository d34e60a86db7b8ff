// The lanes of the points that are looked at.

import { Lane } from "./lane.js";

/** "change" when there are others. */
export class Lanes extends EventTarget {
  #parent;
  #lanes = new Map();
  #numbers = new Map(); // points by the number that their records carry

  constructor(parent) {
    super();
    this.#parent = parent;
  }

  get points() {
    return [...this.#lanes.keys()];
  }

  lane(point) {
    return this.#lanes.get(point);
  }

  /** Returns the point's lane. */
  open(point) {
    if (!this.#lanes.has(point)) {
      this.#lanes.set(point, new Lane(this.#parent, point, { onClose: () => this.close(point) }));
      this.dispatchEvent(new Event("change"));
    }
    return this.#lanes.get(point);
  }

  close(point) {
    const lane = this.#lanes.get(point);
    lane.listener.stop();
    lane.element.remove();
    this.#lanes.delete(point);
    this.dispatchEvent(new Event("change"));
  }

  setNumbers(numbers) {
    this.#numbers = new Map(Object.entries(numbers).map(([point, number]) => [number, point]));
  }

  take(records) {
    for (const record of records) this.#lanes.get(this.#numbers.get(record.point))?.add(record);
  }

  /** Nothing that was told before holds any more. */
  forget() {
    for (const lane of this.#lanes.values()) {
      lane.error = "";
      lane.meter.clear();
    }
  }

  setLevels({ levels, errors = {} }, nowMs) {
    for (const [point, lane] of this.#lanes) {
      if (levels[point]) lane.meter.set(levels[point], nowMs);
      if (point in errors) lane.error = errors[point];
    }
  }

  draw(colors) {
    for (const lane of this.#lanes.values()) lane.draw(colors);
  }
}
