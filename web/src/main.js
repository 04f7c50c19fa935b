// SPDX-License-Identifier: Apache-2.0
import { nextDiagnostic } from '@codemirror/lint';

import EXAMPLE from '../../emulator/rootfs/system/etc/demo_rules.xml';
import { Bench, Judgement } from './bench.js';
import { decimalIdsText, hex, idsText, parseDevices, parseId, READY_MADE, shortName } from './devices.js';
import { byId, element } from './dom.js';
import { Editor } from './editor.js';
import { Engine } from './engine.js';
import { decode, droppedFile, encode, openFile, saveFile } from './files.js';
import { Names } from './names.js';
import { changeBetween } from './rules.js';

const TYPING_PAUSE_MS = 120;
const TOAST_MS = 6000;
// Listed at most; the rest is counted.
const MOST_FINDINGS = 200;
const MOST_FOUND = 60;
// Of the ready-made ones, on the bench from the beginning.
const FIRST_DEVICES = 12;

const engine = new Engine();
const names = new Names();
const namesByCode = new Map();
const codesByName = new Map();
let classNames = [];

/** The file in the editor as it was opened or saved, and the one in force, or null. */
let file = null;
let base = null;

let toastTimer;
function toast(text) {
  byId('announce').textContent = text;
  clearTimeout(toastTimer);
  toastTimer = setTimeout(() => { byId('announce').textContent = ''; }, TOAST_MS);
}

/** Runs what a click or key asks for, and tells where it fails. */
const guarded = (action) => async (event) => {
  try {
    await action(event);
  } catch (error) {
    toast(error.message);
  }
};
const onClick = (id, action) => byId(id).addEventListener('click', guarded(action));

const plural = (count, one, many = `${one}s`) => `${count} ${count === 1 ? one : many}`;

/** Control characters, which a status text quotes from a file, as pictures of them. */
const visible = (text) => text.replace(/[\0-\x1f]/g, (c) => String.fromCharCode(0x2400 + c.charCodeAt(0)));

const nonce = document.querySelector('meta[name=style-nonce]').content;
const editor = new Editor(byId('editor'), nonce, () => {
  drawFile();
  evaluateSoon();
});
const bench = new Bench(byId('bench'), byId('bench-note'), {
  namesByCode,
  vendorName: (id) => names.vendor(id),
  goTo: (line) => editor.goTo(line),
  allow: guarded((subjects) => edit(true, subjects)),
  changed: () => evaluateSoon(0),
});

// The file

const isEdited = () => !editor.doc.eq(file.doc);

/** What saving would write: the file's own bytes as long as nothing is edited. */
function currentBytes() {
  return isEdited() ? encode(editor.doc.sliceString(0, editor.doc.length, file.lineEnd)) : file.bytes;
}

function drawFile() {
  if (!file) return;
  byId('file-name').textContent = file.name;
  byId('file-dirty').hidden = !isEdited();
  document.title = `${isEdited() ? '• ' : ''}${file.name} – kusd rules`;
}

function take(opened) {
  file = null;
  editor.open(opened.text);
  file = { ...opened, doc: editor.doc };
  lastAccepted = null;
  drawFile();
  evaluateSoon(0);
  if (!opened.isText) toast(`${opened.name} is no UTF-8 text: the answers are about its own bytes until you edit it.`);
}

const mayReplace = () => !isEdited() || confirm('The text is edited and not saved. Leave it?');

async function open() {
  if (!mayReplace()) return;
  const opened = await openFile(byId('file-input'));
  if (opened) take(opened);
  editor.view.focus();
}

async function save() {
  const bytes = currentBytes();
  const { doc } = editor;
  if (!await saveFile(file, bytes)) return;
  Object.assign(file, { bytes, doc });
  drawFile();
  toast(`${file.name} is saved.`);
}

function showExample() {
  editor.replace(EXAMPLE);
  editor.view.focus();
}

// The file in force

function setBase(opened) {
  base = opened;
  byId('base-name').textContent = base ? base.name : 'none';
  byId('base-drop').disabled = !base;
  byId('filter').querySelector('[value=changed]').disabled = !base;
  if (!base && byId('filter').value === 'changed') setFilter('all');
  editor.compare(base ? base.text.replaceAll('\r\n', '\n') : null);
  evaluateSoon(0);
}

async function openBase() {
  const opened = await openFile(byId('file-input'));
  if (opened) setBase(opened);
}

function keepAsBase() {
  const bytes = currentBytes();
  setBase({ name: isEdited() ? `${file.name}, as it was edited` : file.name, bytes, ...decode(bytes) });
}

// Answers

/** Of the last text that was accepted since a file was opened, or null. */
let lastAccepted = null;
let evaluateTimer;
let running = false;
let again = false;

function evaluateSoon(delay = TYPING_PAUSE_MS) {
  clearTimeout(evaluateTimer);
  evaluateTimer = setTimeout(evaluate, delay);
}

async function evaluate() {
  again = running;
  if (running || !file) return;
  running = true;
  const devices = [...bench.devices];
  try {
    const [report, baseReport] = await Promise.all([
      engine.evaluate(currentBytes(), devices),
      base ? engine.evaluate(base.bytes, devices) : null,
    ]);
    drawReport(report);
    const judgement = new Judgement(report, devices);
    if (judgement.accepted) lastAccepted = judgement;
    // Half a rule is no reason to take all answers away.
    bench.draw({
      now: lastAccepted ?? judgement,
      base: baseReport ? new Judgement(baseReport, devices) : null,
      stale: lastAccepted !== null && !judgement.accepted,
    });
  } catch (error) {
    drawReport({ verdict: 'failed', status: error.message, line: 0, warnings: [] });
    bench.draw({ now: new Judgement({ verdict: 'failed' }, devices), base: null });
  }
  byId('summary').textContent = bench.summary();
  running = false;
  if (again) evaluateSoon(0);
}

const VERDICTS = {
  accepted: ['✓', 'Accepted'],
  refused: ['✕', 'Refused'],
  crash: ['†', 'Would end the daemon'],
  failed: ['?', 'Not checked'],
};

/** "1 error, 2 warnings", or an empty text. */
function tallyOf(findings) {
  return [['error', 'error'], ['warning', 'warning'], ['info', 'note']]
    .map(([level, word]) => [findings.filter(({ severity }) => severity === level).length, word])
    .filter(([count]) => count > 0).map(([count, word]) => plural(count, word)).join(', ');
}

function drawReport({ verdict, status, line, warnings }) {
  const [mark, what] = VERDICTS[verdict];
  const strip = byId('verdict');
  const lineText = line > 0 ? `line ${line}` : '';
  strip.dataset.verdict = verdict;
  strip.querySelector('.mark').textContent = mark;
  strip.querySelector('.what').textContent = what;
  const text = byId('verdict-text');
  text.textContent = text.title = visible(status);
  const link = byId('verdict-line');
  link.hidden = !lineText;
  link.textContent = lineText;
  link.onclick = () => editor.goTo(line);

  const findings = warnings.map((warning) => (warning.level === 'note'
    ? { ...warning, severity: 'info', message: `Note: ${warning.message}` }
    : { ...warning, severity: 'warning' }));
  if (verdict !== 'accepted') {
    findings.unshift({ line, severity: 'error', message: `${what}: ${status}`, cure: '' });
  }
  editor.show(findings);
  drawFindings(findings);
  const spoken = [what, status, lineText, tallyOf(findings) || 'no findings'].filter(Boolean).join(', ');
  if (byId('spoken').textContent !== spoken) byId('spoken').textContent = spoken;
}

let drawnFindings = '';
function drawFindings(findings) {
  byId('finding-count').textContent = tallyOf(findings) || 'none';
  const listed = findings.slice(0, MOST_FINDINGS);
  const key = JSON.stringify([listed, findings.length]);
  if (key === drawnFindings) return;
  drawnFindings = key;
  const items = listed.map(({ line, severity, message, cure }) => element('button',
    { type: 'button', className: severity, onclick: () => editor.goTo(line) },
    element('span', { className: 'at' }, line > 0 ? `line ${line}` : 'file'),
    element('span', {}, visible(message),
      cure ? element('span', { className: 'cure' }, ` – ${visible(cure)}`) : null)));
  if (findings.length > listed.length) {
    items.push(element('p', { className: 'none' }, `and ${findings.length - listed.length} more`));
  }
  if (items.length === 0) {
    items.push(element('p', { className: 'none' }, 'None: the file says what it seems to say.'));
  }
  byId('findings').replaceChildren(...items.map((item) => element('li', {}, item)));
}

// Rules by a click

async function edit(allow, subjects) {
  const { doc } = editor;
  const text = doc.toString();
  const edited = await engine.edit(text, allow, subjects.map(
    ({ className, vendor = -1, product = -1 }) => ({ code: codesByName.get(className) ?? -1, vendor, product })));
  // Who types meanwhile goes first.
  if (editor.doc !== doc) return;
  const change = changeBetween(text, edited.text);
  if (change) {
    const head = change.from + change.insert.length;
    editor.change({ changes: change, selection: { anchor: change.from, head } });
  }
  if (edited.problem) {
    toast(`Nothing is changed: ${edited.problem}`);
  } else if (edited.note) {
    toast(`${change ? 'The rules are' : 'Nothing is'} changed, but ${edited.note}`);
  } else {
    toast(change ? 'The rules are changed. Ctrl+Z in the editor takes it back.'
      : 'The rules say so already.');
  }
}

function drawFound() {
  const query = byId('query').value;
  const found = names.search(query);
  byId('found-count').textContent = query.trim() === ''
    ? 'The public USB id list is in this page.'
    : `${plural(found.length, 'entry', 'entries')}${
      found.length > MOST_FOUND ? `, the first ${MOST_FOUND} shown` : ''}`;
  byId('found').replaceChildren(...found.slice(0, MOST_FOUND).map((entry) => {
    const { vendor, product, vendorName, name } = entry;
    const ids = product === null ? `${hex(vendor, 4)} · ${vendor}`
      : `${idsText(entry)} · ${decimalIdsText(entry)}`;
    const what = product === null ? `every product of ${vendorName}` : `${vendorName} ${name}`;
    const subject = { vendor, product: product ?? -1 };
    const choice = (label, allow) => element('button', { type: 'button',
      'aria-label': `${label} ${what}`, onclick: guarded(() => edit(allow, [subject])) }, label);
    return element('li', {},
      element('div', { className: 'who' },
        element('span', { className: 'device-name' }, product === null ? vendorName : name),
        element('span', { className: 'facts' }, element('span', { className: 'device-ids' }, ids),
          ` · ${product === null ? 'every product' : vendorName}`)),
      element('div', { className: 'buttons' },
        product === null ? null : element('button', { type: 'button',
          'aria-label': `Try… ${what} on the bench`,
          onclick: () => showOwn({ name: `${vendorName} ${name}`, vendor, product }) }, 'Try…'),
        choice('Allow', true), choice('Block', false)));
  }));
}

// The desk

function showTab(name) {
  for (const tab of ['bench', 'find']) {
    const selected = tab === name;
    byId(`tab-${tab}`).setAttribute('aria-selected', String(selected));
    byId(`tab-${tab}`).tabIndex = selected ? 0 : -1;
    byId(`panel-${tab}`).hidden = !selected;
  }
}

function find() {
  showTab('find');
  byId('query').select();
}

function setFilter(value) {
  byId('filter').value = bench.filter = value;
  bench.draw();
}

const addDevices = (devices) => bench.set([...devices, ...bench.devices]);

function addReadyMade() {
  const chosen = byId('kind').value;
  const copies = chosen === 'all' ? READY_MADE : [READY_MADE[Number(chosen)]];
  addDevices(copies.map((device) => ({ ...device })));
}

// A device of one's own

const ownForm = byId('own-form');

function drawOwnClasses() {
  const isUsb = ownForm.elements.kind.value === 'usb';
  const rows = classNames.filter(({ code }) => (code <= 0xff) === isUsb);
  byId('own-classes').replaceChildren(
    element('legend', {}, isUsb ? 'Classes of its interfaces' : 'What it is'),
    ...rows.map(({ name, code }) => element('label', {},
      element('input', { type: 'checkbox', name: 'class', value: code }),
      shortName(name))));
  byId('own-hid-label').hidden = byId('own-other-label').hidden = !isUsb;
}

function showOwn({ name = '', vendor = '', product = '' } = {}) {
  ownForm.reset();
  byId('own-error').textContent = '';
  Object.assign(ownForm.elements.name, { value: name });
  Object.assign(ownForm.elements.vendor, { value: vendor });
  Object.assign(ownForm.elements.product, { value: product });
  drawOwnClasses();
  byId('own-dialog').showModal();
}

function readOwn() {
  const { name, kind, vendor, product, other, vendorHid } = ownForm.elements;
  const ids = [vendor, product].map((field) => {
    const id = parseId(field.value);
    if (id === null) throw new Error(`The ${field.name} is a number from 0 to 65535, or 0x… when hexadecimal.`);
    return id;
  });
  const classes = [...ownForm.querySelectorAll('[name=class]:checked')].map(({ value }) => Number(value));
  if (kind.value === 'usb') {
    for (const text of other.value.split(/[\s,]+/).filter(Boolean)) {
      const code = parseId(text);
      if (code === null || code > 0xff) throw new Error(`'${text}' is no class from 0 to 255.`);
      classes.push(code);
    }
  }
  if (classes.length === 0) throw new Error('Choose at least one class.');
  return { name: name.value.trim() || 'My device', kind: kind.value, vendor: ids[0], product: ids[1],
    classes, vendorHid: kind.value === 'usb' && vendorHid.checked };
}

/** A dialog's form, which `add` may refuse, with the reason in `errorId`. */
function onSubmit(form, errorId, add) {
  form.addEventListener('submit', (event) => {
    try {
      add();
      showTab('bench');
    } catch (error) {
      event.preventDefault();
      byId(errorId).textContent = error.message;
    }
  });
}

function showPaste() {
  byId('paste-error').textContent = '';
  byId('paste-dialog').showModal();
  byId('paste-text').select();
}

function readPasted() {
  const { devices, problems } = parseDevices(byId('paste-text').value, codesByName);
  if (problems.length > 0) {
    const left = problems.length > 3 ? `\nand ${problems.length - 3} more` : '';
    const text = problems.slice(0, 3).join('\n') + left;
    if (devices.length === 0) throw new Error(text);
    toast(`${plural(devices.length, 'device')} added. Not read: ${text}`);
  } else {
    toast(`${plural(devices.length, 'device')} added.`);
  }
  addDevices(devices);
}

// Keys

const KEYS = {
  'Ctrl+o': open,
  'Ctrl+s': save,
  'Ctrl+k': find,
  'Ctrl+b': () => {
    showTab('bench');
    bench.focus();
  },
  'Ctrl+e': () => editor.view.focus(),
  F1: () => byId('help-dialog').showModal(),
  F8: () => {
    editor.view.focus();
    nextDiagnostic(editor.view);
  },
};

addEventListener('keydown', (event) => {
  const control = event.ctrlKey || event.metaKey;
  const key = (control ? 'Ctrl+' : '') + (control ? event.key.toLowerCase() : event.key);
  if (!KEYS[key] || event.shiftKey || event.altKey || document.querySelector('dialog[open]')) return;
  event.preventDefault();
  event.stopPropagation();
  guarded(KEYS[key])();
}, { capture: true });

onClick('help', KEYS.F1);
onClick('open', open);
onClick('save', save);
onClick('example', showExample);
onClick('base-open', openBase);
onClick('base-keep', keepAsBase);
onClick('base-drop', () => setBase(null));
onClick('add', addReadyMade);
onClick('own', () => showOwn());
onClick('paste', showPaste);
onClick('clear', () => bench.set([]));
byId('filter').addEventListener('change', () => setFilter(byId('filter').value));
byId('query').addEventListener('input', drawFound);
ownForm.elements.kind.addEventListener('change', drawOwnClasses);
onSubmit(ownForm, 'own-error', () => addDevices([readOwn()]));
onSubmit(byId('paste-form'), 'paste-error', readPasted);
for (const button of document.querySelectorAll('dialog .cancel')) {
  button.addEventListener('click', () => button.closest('dialog').close());
}

for (const [tab, other] of [['bench', 'find'], ['find', 'bench']]) {
  byId(`tab-${tab}`).addEventListener('click', () => showTab(tab));
  byId(`tab-${tab}`).addEventListener('keydown', (event) => {
    if (event.key !== 'ArrowLeft' && event.key !== 'ArrowRight') return;
    showTab(other);
    byId(`tab-${other}`).focus();
  });
}

addEventListener('dragover', (event) => {
  if (!event.dataTransfer.types.includes('Files')) return;
  event.preventDefault();
  document.body.classList.add('dropping');
});
addEventListener('dragleave', (event) => {
  if (!event.relatedTarget) document.body.classList.remove('dropping');
});
addEventListener('drop', guarded(async (event) => {
  if (!event.dataTransfer.types.includes('Files')) return;
  event.preventDefault();
  document.body.classList.remove('dropping');
  if (!mayReplace()) return;
  const opened = await droppedFile(event.dataTransfer);
  if (opened) take(opened);
}), { capture: true });

addEventListener('beforeunload', (event) => {
  if (isEdited()) event.preventDefault();
});

// The beginning

async function start() {
  const example = encode(EXAMPLE);
  byId('kind').replaceChildren(
    ...READY_MADE.map(({ name }, i) => element('option', { value: String(i) }, name)),
    element('option', { value: 'all' }, 'All of these'));
  take({ name: 'usb_device_config.xml', handle: null, bytes: example, ...decode(example) });
  setBase(null);
  drawFindings([]);
  classNames = await engine.classNames();
  for (const { name, code } of classNames) {
    namesByCode.set(code, name);
    codesByName.set(name, code);
  }
  editor.setClassNames(classNames);
  bench.set(READY_MADE.slice(0, FIRST_DEVICES).map((device) => ({ ...device })));
  await names.load();
  drawFound();
  bench.draw();
}

guarded(start)();
