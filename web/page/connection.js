// The connection to kvoxweb: commands with their replies, and what it tells by itself.
// docs/web-api.md describes the messages.

import { parseAudio } from "./audio.js";

const FIRST_PAUSE_MS = 250;
const LONGEST_PAUSE_MS = 5000;

/** A command that was refused: `status` is kvoxctl's exit status. */
export class Refused extends Error {
  /** `out` is the document, where there is one nevertheless. */
  constructor(text, status, out = null) {
    super(text);
    this.status = status;
    this.out = out;
  }
}

/**
 * Connects, and again whenever the connection has ended.
 *
 * Events, with their data in `detail`: "open" (the hello message), "closed" (why), "audio"
 * (records of parseAudio()), and those of the server's messages by their names.
 */
export class Connection extends EventTarget {
  #url;
  #token;
  #socket = null;
  #pauseMs = FIRST_PAUSE_MS;
  #lastId = 0;
  #waiting = new Map();
  #watched = { levels: [], audio: [], timing: [] };

  constructor(url, token) {
    super();
    this.#url = url;
    this.#token = token;
    this.#connect();
  }

  /**
   * Runs a verb of kvoxctl with that standard input; returns its JSON document, or with `text` what
   * it prints for people. Throws Refused.
   */
  run(words, { input = "", text = false } = {}) {
    if (this.#socket?.readyState !== WebSocket.OPEN) {
      return Promise.reject(new Refused("there is no connection to kvoxweb", 3));
    }
    const id = ++this.#lastId;
    this.send({ id, run: words, input, text });
    return new Promise((resolve, reject) => this.#waiting.set(id, { resolve, reject }));
  }

  /**
   * What is to be sent, instead of what was before: {levels, audio, timing}, of points and, timing,
   * of tap-outs.
   */
  watch(watched) {
    this.#watched = watched;
    this.send({ watch: this.#watched });
  }

  /** Sends another message, if there is a connection. */
  send(message) {
    if (this.#socket?.readyState === WebSocket.OPEN) this.#socket.send(JSON.stringify(message));
  }

  #connect() {
    const socket = new WebSocket(this.#url, "kvox.1");
    socket.binaryType = "arraybuffer";
    socket.onopen = () => this.send({ token: this.#token });
    socket.onmessage = (event) => this.#take(event.data);
    socket.onclose = (event) => this.#close(event.reason);
    this.#socket = socket;
  }

  #take(data) {
    if (data instanceof ArrayBuffer) {
      this.#tell("audio", parseAudio(data));
      return;
    }
    const message = JSON.parse(data);
    if (message.event === "hello") {
      this.#pauseMs = FIRST_PAUSE_MS;
      this.send({ watch: this.#watched });
      this.#tell("open", message);
    } else if (message.event) {
      this.#tell(message.event, message);
    } else {
      this.#settle(message);
    }
  }

  #settle({ id, status, out, error }) {
    const waiting = this.#waiting.get(id);
    this.#waiting.delete(id);
    if (!waiting) return;
    // A check that fails is no failure of the verb: it has a document, and no message.
    if (status === 0 || (out && !error)) waiting.resolve(out ?? {});
    else waiting.reject(new Refused(error || "kvoxctl has ended", status, out));
  }

  #close(reason) {
    for (const { reject } of this.#waiting.values()) {
      reject(new Refused("the connection to kvoxweb ended", 3));
    }
    this.#waiting.clear();
    this.#tell("closed", { reason });
    setTimeout(() => this.#connect(), this.#pauseMs);
    this.#pauseMs = Math.min(2 * this.#pauseMs, LONGEST_PAUSE_MS);
  }

  #tell(name, detail) {
    this.dispatchEvent(new CustomEvent(name, { detail }));
  }
}
