// SPDX-License-Identifier: Apache-2.0
// The bench: devices and their answers, under the editor's rules and under those in force.
import { classesText, decimalIdsText, idsText, shortName } from './devices.js';
import { element } from './dom.js';
import { subjectsOf } from './rules.js';

// Drawn at most; the rest is counted.
const MOST_ROWS = 300;

/** Answers to devices under one file's rules. */
export class Judgement {
  #answers = new Map();

  /** `report` is what Engine.evaluate gave for these devices. */
  constructor(report, devices) {
    this.accepted = report.verdict === 'accepted';
    report.answers?.forEach((answer, i) => this.#answers.set(devices[i], answer));
  }

  answer(device) {
    return this.#answers.get(device) ?? null;
  }

  words(device) {
    const answer = this.answer(device);
    if (!answer) {
      return { state: 'none', word: 'no answer', reason: '' };
    }
    if (answer.leftToInput) {
      return { state: 'left', word: 'input path',
        reason: 'Left to the input subsystem: what counts is the input device.' };
    }
    const word = answer.allowed ? 'allowed' : 'refused';
    return { state: word, word, reason: answer.reason.trim() };
  }
}

/** What a remedy adds, in short. */
const labelOf = (remedy) => subjectsOf(remedy).map(({ className, vendor, product }) =>
  (className ? `class ${shortName(className)}` : `product ${vendor}:${product}`)).join(', ');

/** A device on the page. */
class Row {
  #answer;

  constructor(device, page) {
    this.device = device;
    this.page = page;
    this.chips = { base: element('span', { role: 'img' }), now: element('span') };
    this.reason = element('span', { className: 'reason' });
    this.warnings = element('span', { className: 'warned' });
    this.vendor = element('span');
    this.more = element('button', { className: 'more', type: 'button', 'aria-expanded': 'false' },
      element('span', { className: 'headline' },
        element('span', { className: 'device-name' }, device.name), ' ',
        element('span', { className: 'device-ids', title: decimalIdsText(device) }, idsText(device)),
        element('span', { className: 'facts' }, ' · ', classesText(device, page.namesByCode),
          device.vendorHid ? ' (vendor-specific)' : '', this.vendor)),
      this.reason, this.warnings);
    this.remove = element('button',
      { className: 'remove', type: 'button', 'aria-label': `Remove ${device.name}`, title: 'Remove' },
      '×');
    this.actions = element('div', { className: 'actions' });
    this.details = element('div', { className: 'details', hidden: true });
    this.item = element('li', {}, element('div', { className: 'device' },
      element('span', { className: 'chips' }, this.chips.base,
        element('span', { className: 'arrow', 'aria-hidden': 'true' }, '→'), this.chips.now),
      this.more, this.remove, this.actions, this.details));
    this.more.addEventListener('click', () => this.#toggle());
    this.remove.addEventListener('click', () => page.remove(device));
  }

  #toggle() {
    this.details.hidden = !this.details.hidden;
    this.more.setAttribute('aria-expanded', String(!this.details.hidden));
    this.#drawDetails();
  }

  draw(now, base) {
    const words = now.words(this.device);
    this.chips.now.className = `chip ${words.state}`;
    this.chips.now.textContent = words.word;
    const before = base ? base.words(this.device) : words;
    this.chips.base.className = `chip ${before.state}`;
    this.chips.base.title = `in force: ${before.word}`;
    this.chips.base.setAttribute('aria-label', this.chips.base.title);
    this.item.classList.toggle('changed', hasChanged(this.device, now, base));
    this.reason.textContent = words.reason;
    const vendor = this.page.vendorName(this.device.vendor);
    this.vendor.textContent = vendor ? ` · ${vendor}` : '';
    this.#answer = now.answer(this.device);
    this.warnings.textContent = (this.#answer?.warnings ?? []).map((text) => `Warning: ${text}`).join('\n');
    this.#drawActions();
    this.#drawDetails();
  }

  // One line for every answer, so that nothing moves when it changes.
  #drawActions() {
    const { lines = [], remedies = [] } = this.#answer ?? {};
    const key = JSON.stringify([lines, remedies]);
    if (this.actions.dataset.key === key) return;
    this.actions.dataset.key = key;
    this.actions.replaceChildren(
      ...remedies.map((remedy) => element('button', { type: 'button', className: 'remedy',
        title: remedy, onclick: () => this.page.allow(subjectsOf(remedy)) }, labelOf(remedy))),
      ...lines.map((line) => element('button', { type: 'button', className: 'link',
        onclick: () => this.page.goTo(line) }, `line ${line}`)));
  }

  #drawDetails() {
    if (this.details.hidden) return;
    const log = this.#answer?.log ?? [];
    this.details.replaceChildren(
      element('h3', {}, 'What the daemon logs of this decision'),
      element('pre', { tabIndex: 0 }, log.join('\n') || 'nothing: no rule is looked at'));
  }
}

export function hasChanged(device, now, base) {
  const before = base?.answer(device), after = now.answer(device);
  return Boolean(before && after) && before.allowed !== after.allowed;
}

export class Bench {
  #list;
  #note;
  #page;
  #rows = new Map();
  #shown = [];
  #judgements = null;

  /**
   * `page` has vendorName(id), namesByCode (of classes), and what follows a click: goTo(line),
   * allow(subjects), changed().
   */
  constructor(list, note, page) {
    this.#list = list;
    this.#note = note;
    this.#page = { ...page, remove: (device) => this.#remove(device) };
    this.devices = [];
    this.filter = 'all';
    list.addEventListener('keydown', (event) => this.#walk(event));
  }

  set(devices) {
    this.devices = devices;
    this.#page.changed();
    this.draw();
  }

  #remove(device) {
    const at = this.#shown.findIndex((row) => row.device === device);
    this.set(this.devices.filter((other) => other !== device));
    (this.#shown[at] ?? this.#shown.at(-1))?.remove.focus();
  }

  /** Arrow keys go from device to device. */
  #walk(event) {
    const step = { ArrowDown: 1, ArrowUp: -1 }[event.key];
    const at = this.#shown.findIndex(({ more }) => more === document.activeElement);
    if (!step || at < 0) return;
    event.preventDefault();
    this.#shown[at + step]?.more.focus();
  }

  focus() {
    this.#shown[0]?.more.focus();
  }

  #isWanted(device) {
    if (this.filter === 'all' || !this.#judgements) return true;
    const { now, base } = this.#judgements;
    if (this.filter === 'changed') return hasChanged(device, now, base);
    return now.words(device).state === this.filter;
  }

  /**
   * Draws what is known; `judgements` are those of the editor's rules, now, and base or null. They
   * are stale where `now` is of an earlier text.
   */
  draw(judgements = this.#judgements) {
    this.#judgements = judgements;
    const wanted = this.devices.filter((device) => this.#isWanted(device));
    const rows = new Map();
    for (const device of wanted.slice(0, MOST_ROWS)) {
      rows.set(device, this.#rows.get(device) ?? new Row(device, this.#page));
    }
    this.#rows = rows;
    const shown = [...rows.values()];
    if (judgements) for (const row of shown) row.draw(judgements.now, judgements.base);
    if (shown.length !== this.#shown.length || shown.some((row, i) => row !== this.#shown[i])) {
      this.#list.replaceChildren(...shown.map((row) => row.item));
    }
    this.#shown = shown;
    this.#list.classList.toggle('comparing', Boolean(judgements?.base));
    this.#list.classList.toggle('stale', Boolean(judgements?.stale));
    this.#drawNote(wanted.length - shown.length);
  }

  #drawNote(left) {
    let text = '';
    if (left > 0) text = `and ${left} more`;
    else if (this.devices.length === 0) text = 'No devices: add ready-made ones, your own, or paste what kusctl or lsusb prints.';
    else if (this.#shown.length === 0) text = `None of ${this.devices.length} devices.`;
    this.#note.textContent = text;
    this.#note.hidden = text === '';
  }

  /** "9 allowed · 5 refused", with what changes where there is something to compare. */
  summary() {
    if (!this.#judgements) return '';
    const { now, base, stale } = this.#judgements;
    if (stale) return 'answers from before the error';
    if (!now.accepted) return 'no answers: a device would not take this file';
    const count = (test) => this.devices.filter(test).length;
    const of = (state) => count((device) => now.words(device).state === state);
    const parts = [`${of('allowed')} allowed`, `${of('refused')} refused`];
    if (base) parts.push(`${count((device) => hasChanged(device, now, base))} changed`);
    return parts.join(' · ');
  }
}
