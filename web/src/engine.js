// SPDX-License-Identifier: Apache-2.0
// The engine as the page sees it: a worker that may die, and is then replaced.
import workerSource from 'worker-source';

const PATIENCE_MS = 30000;

export class Engine {
  #url = URL.createObjectURL(new Blob([workerSource], { type: 'text/javascript' }));
  #worker = null;
  #last = 0;
  #pending = new Map();

  #start() {
    this.#worker = new Worker(this.#url);
    this.#worker.onmessage = ({ data }) => {
      if (data.error === undefined) this.#settle(data.id, 'resolve', data.result);
      else this.#settle(data.id, 'reject', new Error(data.error));
    };
    this.#worker.onerror = (event) => {
      event.preventDefault();
      this.#giveUp(new Error(event.message || 'the engine failed'));
    };
  }

  #settle(id, how, value) {
    const waiting = this.#pending.get(id);
    if (!waiting) return;
    this.#pending.delete(id);
    clearTimeout(waiting.timer);
    waiting[how](value);
  }

  #giveUp(error) {
    this.#worker?.terminate();
    this.#worker = null;
    for (const id of [...this.#pending.keys()]) this.#settle(id, 'reject', error);
  }

  #ask(message) {
    if (!this.#worker) this.#start();
    const id = ++this.#last;
    return new Promise((resolve, reject) => {
      const timer = setTimeout(
        () => this.#giveUp(new Error('the engine took too long for this file')), PATIENCE_MS);
      this.#pending.set(id, { resolve, reject, timer });
      this.#worker.postMessage({ id, ...message });
    });
  }

  /** USB classes and input sources: name, code, and whether a class element may not name it. */
  classNames() {
    return this.#ask({ request: 'classNames' });
  }

  /**
   * What the device would say of the rules (a Uint8Array): verdict, status, line and warnings as
   * `kusctl lint --json` has them, and in `answers` one answer for each device, or null where the
   * file is not accepted. Rejected where the engine itself fails.
   */
  evaluate(rules, devices) {
    return this.#ask({ request: 'evaluate', rules, devices });
  }

  /**
   * A text of rules that allows (or blocks) the subjects, as `kusctl allow` and `block` make it:
   * {text, problem, note}. Where there is a problem it is the text as it was; the note tells what
   * else may decide. A subject has the code of a class or -1, a vendor, and a product or -1.
   */
  edit(text, allow, subjects) {
    return this.#ask({ request: 'edit', text, allow, subjects });
  }
}
