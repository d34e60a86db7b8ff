// Makes changes of the daemon's set-up, whole or not at all, one after the other, and takes them
// back.

const MOST = 100;

/**
 * A change is {text, commands, undo} or {refusal}, as model.js makes them. A command is a list of
 * words, or {words, input}.
 */
export class Changes {
  #run;
  #say;
  #done;
  #made = [];
  #queue = Promise.resolve();

  /**
   * `run` runs one command; `say` tells people a text, and of what kind it is; `done` is called, and
   * waited for, after each change: the next one is planned from what it reads.
   */
  constructor({ run, say, done }) {
    this.#run = run;
    this.#say = say;
    this.#done = done;
  }

  /** The change that undo() takes back; null when there is none. */
  get last() {
    return this.#made.at(-1) ?? null;
  }

  /** `plan` returns the change, or a promise of it. What was done of one that fails is undone. */
  make(plan) {
    return this.#inTurn(async () => {
      const change = await plan();
      if (!change) return;
      if (change.refusal) return this.#say(change.refusal, "bad");
      const count = await this.#runAll(change.commands);
      if (count === change.commands.length) {
        this.#made.push(change);
        this.#made.splice(0, this.#made.length - MOST);
        this.#say(change.text);
      } else if (count > 0) {
        for (const command of change.undo) await this.#run(command).catch(() => {});
      }
    });
  }

  undo() {
    return this.#inTurn(async () => {
      const change = this.#made.pop();
      if (!change) return;
      if (await this.#runAll(change.undo) === change.undo.length) {
        this.#say(`undone: ${change.text}`);
      } else {
        this.#made.push(change);
      }
    });
  }

  #inTurn(work) {
    const turn = this.#queue.then(work).catch((error) => this.#say(error.message, "bad"))
      .then(this.#done);
    this.#queue = turn;
    return turn;
  }

  /** Until the first failure, which is told. Returns how many were done. */
  async #runAll(commands) {
    for (const [count, command] of commands.entries()) {
      try {
        await this.#run(command);
      } catch (error) {
        this.#say(error.message, "bad");
        return count;
      }
    }
    return commands.length;
  }
}
