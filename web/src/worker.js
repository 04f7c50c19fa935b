// SPDX-License-Identifier: Apache-2.0
// Asks the engine, away from the page's own thread.
import wasm from 'engine.wasm';

const program = new WebAssembly.Module(wasm);
// An instance never gives memory back: one that held a large file is not kept.
const LARGE_FILE = 1 << 20;

// What the engine's runtime asks of a system. It has no files, and an exit is a death.
const system = {};
for (const { module, name } of WebAssembly.Module.imports(program)) {
  const harmless = name.startsWith('environ_') || name === 'emscripten_notify_memory_growth';
  system[module] ??= {};
  system[module][name] = () => {
    if (!harmless) throw new Error(`the engine called ${name}`);
    return 0;
  };
}

/** A file that ends the daemon ends one of these. */
class Instance {
  #calls;

  constructor() {
    this.#calls = new WebAssembly.Instance(program, system).exports;
    this.#calls._initialize();
  }

  /** An argument in the engine's memory, which the call frees. */
  #place(array) {
    const at = this.#calls.reserve(array.byteLength);
    if (at === 0) throw new RangeError('the engine is out of memory');
    new Uint8Array(this.#calls.memory.buffer, at).set(
      new Uint8Array(array.buffer, array.byteOffset, array.byteLength));
    return at;
  }

  #json(at) {
    const memory = new Uint8Array(this.#calls.memory.buffer);
    return JSON.parse(new TextDecoder().decode(memory.subarray(at, memory.indexOf(0, at))));
  }

  setRules(bytes) {
    this.#calls.setRules(this.#place(bytes), bytes.length);
  }

  /** review, judge, crash or classNames. */
  ask(question) {
    return this.#json(this.#calls[question]());
  }

  decide({ kind, vendor, product, classes, vendorHid }) {
    const codes = this.#place(Int32Array.from(classes));
    return this.#json(this.#calls.decide(
      kind === 'input', vendor, product, codes, classes.length, vendorHid));
  }

  /** edit or contradictions. */
  askOfEdit(question, allow, { code, vendor, product }) {
    return this.#json(this.#calls[question](allow, code, vendor, product));
  }
}

let instance = new Instance();

function judge(rules) {
  try {
    return instance.ask('judge');
  } catch {
    instance = new Instance();
    instance.setRules(rules);
    return instance.ask('crash');
  }
}

function takeForEdit(text) {
  const rules = new TextEncoder().encode(text);
  instance.setRules(rules);
  if (judge(rules).verdict !== 'accepted') throw new Error('Rules are added to a file that is accepted.');
}

const requests = {
  classNames: () => instance.ask('classNames'),

  evaluate({ rules, devices }) {
    instance.setRules(rules);
    const warnings = instance.ask('review');
    const verdict = judge(rules);
    const accepted = verdict.verdict === 'accepted';
    const answers = accepted ? devices.map((device) => instance.decide(device)) : null;
    if (rules.length > LARGE_FILE) instance = new Instance();
    return { ...verdict, warnings, answers };
  },

  edit({ text, allow, subjects }) {
    takeForEdit(text);
    const result = { text, problem: '', note: '' };
    for (const subject of subjects) {
      const edited = instance.askOfEdit('edit', allow, subject);
      if (edited.problem) return { text, problem: edited.problem, note: '' };
      takeForEdit(edited.text);
      Object.assign(result, { text: edited.text }, instance.askOfEdit('contradictions', allow, subject));
      if (result.problem) return { ...result, text };
    }
    return result;
  },
};

onmessage = ({ data }) => {
  try {
    postMessage({ id: data.id, result: requests[data.request](data) });
  } catch (error) {
    instance = new Instance();
    postMessage({ id: data.id, error: error.message });
  }
};
