// SPDX-License-Identifier: Apache-2.0
// usage: node page_test.mjs DIR_OF_THE_PAGE KUSCTL [NUMBER]: NUMBER begins the random rules
import assert from 'node:assert/strict';
import { spawnSync } from 'node:child_process';
import { mkdtempSync, readdirSync, readFileSync, rmSync, writeFileSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import { after } from 'node:test';

import { axe, kusctl, testPage } from './harness.mjs';

const CORPUS = new URL('../../fuzz/corpus/rules/', import.meta.url);
const FILES = 10000;
const DECIDING_FILES = 100;
const DEVICES_PER_FILE = 101;
const FILES_PER_TRACE = 4;

// Random rules

let state = Number(process.argv[4] ?? 1);
function random(limit) {
  state = (Math.imul(state, 1664525) + 1013904223) | 0;
  return Math.floor(((state >>> 0) / 2 ** 32) * limit);
}
const pick = (...choices) => choices[random(choices.length)];
const often = (usual, ...rare) => (random(12) > 0 ? usual : pick(...rare));
const times = (count, make) => Array.from({ length: count }, make);

const className = () => often(
  pick('USB_CLASS_AUDIO', 'USB_CLASS_PRINTER', 'AINPUT_SOURCE_KEYBOARD', 'AINPUT_SOURCE_MOUSE'),
  'USB_CLASS_HID', 'USB_CLASS_PHYSICAL', '', ' USB_CLASS_AUDIO', 'a<!-- b -->c', '<pid>1</pid>');
const id = () => often(random(8),
  '', '65536', '2147483647', '2147483648', '99999999999', '0x1', '-1', ' 1', '1<b/>2', '&#49;', '\xff', '0x');
const pids = () => times(1 + random(3), () => `<pid>${id()}</pid>`).join('\n');
const rule = () => often(
  pick(`<class>${className()}</class>`, `<vid vendorid="${id()}"/>`, `<vid vendorid="${id()}">${pids()}</vid>`),
  '<vid/>', '<VID vendorid="1"/>', '<vid vendorid="2" productid="3"/>', '<!-- note -->', 'text',
  '<vid vendorid="3"><x/><pid>1</pid><y>2</y></vid>', '<class', '\0', '&amp;', '<![CDATA[x]]>');
const mode = () => often(pick('whitelist', 'blacklist'), 'default', 'Whitelist', '', ' whitelist');
const root = () => `<usbconfig mode="${mode()}">\n${times(random(6), rule).join(pick('\n', '\r\n', '\n  '))}\n</usbconfig>`;
const rules = () => often('<?xml version="1.0" encoding="UTF-8"?>\n', '', '\uFEFF', '\r\n', 'x') +
  often(root(), '', '<usbconfig mode="whitelist"/>', '<config mode="default"/>', '<usbconfig/>', '<usbconfig>', '<!-- -->') +
  often('\n', '<more/>', '</usbconfig>', '\0<x>', 'text');

// The service lists no other USB device of HID alone than a vendor's own; the first is asked by itself.
const devices = () => times(DEVICES_PER_FILE, (_, i) => ({
  name: 'd', vendor: random(8), product: random(8), vendorHid: i > 0, ...pick(
    { kind: 'usb', classes: times(1 + random(3), () => pick(1, 2, 3, 7, 8, 0xe0, 0xff, 0x42)) },
    { kind: 'input', classes: times(1 + random(2), () => pick(0x100, 0x2000, 0x400, 0x1000000)) }) }));

// Asking both

// In what neither can print, the two replace different numbers of bytes.
const finding = ({ verdict, status, line, warnings }) => JSON.parse(
  JSON.stringify({ verdict, status, line, warnings }).replace(/\uFFFD+/g, '\uFFFD'));
// A comparison of what is all the same would be none.
const expectMany = (count, kinds, found) => kinds.forEach((kind) => assert.ok(
  found.filter((one) => one === kind).length > count, `${kind} in ${found.length}`));

/** What the page's engine says of requests: {rules as latin-1 text, devices}. */
const askPage = (page, requests) => page.evaluate((asked) => new Promise((resolve) => {
  const answers = [];
  window.engineWorker.addEventListener('message', ({ data }) => {
    if (data.id === 'test' && answers.push(data.result ?? data) === asked.length) resolve(answers);
  });
  for (const { rules, devices } of asked) {
    window.engineWorker.postMessage({ id: 'test', request: 'evaluate', devices,
      rules: Uint8Array.from(rules, (c) => c.charCodeAt(0)) });
  }
}), requests);

const folder = mkdtempSync(join(tmpdir(), 'kus-page-'));
after(() => rmSync(folder, { recursive: true }));
function write(name, text) {
  const path = join(folder, name);
  writeFileSync(path, text, 'latin1');
  return path;
}

const askKusctl = (args, input = '') =>
  spawnSync(kusctl, args, { input, encoding: 'utf8', maxBuffer: Infinity });

const corpus = readdirSync(CORPUS).map((name) => readFileSync(new URL(name, CORPUS), 'latin1'));
const texts = [...corpus, ...times(FILES, () => Buffer.from(rules()).toString('latin1'))];
const paths = texts.map((text, i) => write(`${i}.xml`, text));
const native = JSON.parse(askKusctl(['lint', '--json', ...paths]).stdout);

testPage('Findings are those of kusctl', async (page) => {
  const reports = await askPage(page, texts.map((text) => ({ rules: text, devices: [] })));
  reports.forEach((report, i) => assert.deepEqual(finding(report), finding(native[i]), texts[i]));
  expectMany(100, ['accepted', 'refused', 'crash'], reports.map(({ verdict }) => verdict));
});

testPage('Answers are those of kusctl', async (page) => {
  const accepted = texts.filter((_, i) => native[i].verdict === 'accepted').slice(0, DECIDING_FILES);
  const requests = accepted.map((text) => ({ rules: text, devices: devices() }));
  const reports = await askPage(page, requests);
  const decisions = [];
  requests.forEach(({ rules: text, devices: [first, ...others] }, i) => {
    const check = ['check', '--json', '--rules', write('rules.xml', text)];
    const [answer, ...answers] = reports[i].answers;
    const lines = askKusctl([...check, '--devices', '-'], others.map((one) => JSON.stringify(one)).join('\n'));
    const expected = lines.stdout.trim().split('\n').map((line) => JSON.parse(line));
    assert.deepEqual(answers.map(({ allowed, reason }) => [allowed, reason]),
      expected.map(({ allowed, reason }) => [allowed, reason]), text);
    decisions.push(...expected.map(({ allowed }) => allowed));
    // The log and the remedies, which kusctl tells of one device at a time.
    if (i % FILES_PER_TRACE !== 0) return;
    const { kind, vendor, product, classes } = first;
    const one = askKusctl([...check, '--verbose', `--vendor=${vendor}`, `--product=${product}`,
      `--${kind === 'usb' ? 'class' : 'input'}=${classes}`]);
    const { allowed, warnings, wouldBeAllowedBy } = JSON.parse(one.stdout);
    assert.deepEqual([answer.allowed, answer.warnings, answer.remedies], [allowed, warnings, wouldBeAllowedBy], text);
    assert.equal(answer.log.map((line) => `${line}\n`).join(''), one.stderr, text);
  });
  expectMany(1000, [true, false], decisions);
});

// A user

async function expectVerdict(page, name, ...texts) {
  await page.locator(`#verdict[data-verdict=${name}]`).waitFor({ timeout: 60000 });
  for (const text of texts) await page.locator('#verdict').getByText(text).waitFor();
}
const row = (page, name) => page.locator('#bench > li').filter({
  has: page.locator('.device-name').getByText(name, { exact: true }) }).first();
const expectAnswer = (page, name, answer) =>
  row(page, name).locator('.chip:last-of-type').getByText(answer, { exact: true }).waitFor();
const editorText = (page) => page.evaluate(() =>
  [...document.querySelectorAll('.cm-line')].map((line) => line.textContent).join('\n'));
const paste = (page, text) => page.evaluate((pasted) => {
  const clipboardData = new DataTransfer();
  clipboardData.setData('text/plain', pasted);
  document.activeElement.dispatchEvent(
    new ClipboardEvent('paste', { clipboardData, bubbles: true, cancelable: true }));
}, text);
async function press(page, ...keys) {
  for (const key of keys) await page.keyboard.press(key);
}
async function replaceText(page, text) {
  await press(page, 'Control+e', 'Control+a');
  await paste(page, text);
}
async function open(page, name, content) {
  const [chooser] = await Promise.all([page.waitForEvent('filechooser'), press(page, 'Control+o')]);
  await chooser.setFiles({ name, mimeType: 'text/xml', buffer: Buffer.from(content) });
}
async function expectAccessible(page) {
  await page.evaluate(axe);
  const { violations } = await page.evaluate(() => window.axe.run({ resultTypes: ['violations'] }));
  assert.deepEqual(violations.map(({ id: rule, nodes }) => [rule, nodes.map(({ html }) => html)]), []);
}

const LSUSB = `[me@desk ~]$ lsusb -v
Bus 001 Device 004: ID 046d:c31c Logitech, Inc. Keyboard K120
Device Descriptor:
  idVendor           0x046d Logitech, Inc.
  idProduct          0xc31c Keyboard K120
  iProduct                2 USB Keyboard
    Interface Descriptor:
      bAlternateSetting       0
      bInterfaceClass         3 Human Interface Device
      bInterfaceSubClass      1 Boot Interface Subclass
      bInterfaceProtocol      1 Keyboard
Bus 001 Device 005: ID 04b8:0005 Seiko Epson Corp. Printer
`;
const LISTED = `$ kusctl watch --json
{"event":"added","device":{"kind":"usb","name":"dock","vendor":6127,"product":12,"classes":["audio","0x42"]}}
{"event":"service-died"}
{"kind":"input","name":"odd","vendor":1,"product":2,"classes":[]}
{"vendor":5000000000,"product":1,"classes":["audio"]}
{"kind":"usb","name":"cut`;

testPage('The way of a user', async (page) => {
  // A file of one's own, with its line ends
  const lines = ['<usbconfig mode="whitelist">', '  <class>USB_CLASS_AUDIO</class><!-- mine -->', '</usbconfig>', ''];
  await open(page, 'mine.xml', lines.join('\r\n'));
  await expectVerdict(page, 'accepted', 'SUCCESS');
  await expectAnswer(page, 'Mouse', 'refused');

  // What is wrong with it while it is typed
  await press(page, 'Control+e', 'Control+Home', 'ArrowDown', 'End');
  await paste(page, '\n  <pid>1</pid>');
  await expectVerdict(page, 'refused', 'INVALID TAG:pid', 'line 3');
  await page.locator('.cm-lint-marker-error').waitFor();
  await page.locator('#findings').getByText('Refused: INVALID TAG:pid').waitFor();
  await page.locator('#summary').getByText('answers from before the error').waitFor();
  await press(page, 'Control+z');
  await expectVerdict(page, 'accepted');
  await page.keyboard.type('<class>USB_V');
  await page.locator('.cm-tooltip-autocomplete').getByText('USB_CLASS_VIDEO').waitFor();
  await press(page, 'Escape', ...Array(20).fill('Control+z'));

  // A remedy, the daemon's log, and the rule behind an answer
  await page.click('#base-keep');
  await row(page, 'Mouse').getByRole('button', { name: 'class MOUSE' }).click();
  await expectAnswer(page, 'Mouse', 'allowed');
  await row(page, 'Mouse').getByRole('button', { name: 'line 3' }).waitFor();
  await row(page, 'Mouse').locator('.more').click();
  await row(page, 'Mouse').getByText('Found CLASS : 8192 in admin config list').waitFor();
  await page.locator('#summary').getByText('1 changed').waitFor();
  await page.selectOption('#filter', 'changed');
  assert.equal(await page.locator('#bench > li').count(), 1);
  await row(page, 'Mouse').locator('.chip[title="in force: refused"]').waitFor();
  await page.click('#base-drop');

  // From a name to a rule
  await press(page, 'Control+k');
  await page.keyboard.type('kingston datatraveler 100 g3');
  await page.getByRole('button', { name: /^Allow Kingston.*100 G3/ }).first().click();
  await page.getByRole('tab', { name: 'Bench' }).click();
  await expectAnswer(page, 'Memory stick', 'allowed');

  // A note is none of the warnings
  await page.locator('#finding-count').getByText('1 note', { exact: true }).waitFor();
  await page.locator('#spoken').getByText('SUCCESS, 1 note').waitFor({ state: 'attached' });
  await page.locator('.cm-lint-marker-info').waitFor();

  // Devices of other programs, and one's own
  for (const [text, name, answer] of [[LSUSB, 'USB Keyboard (keyboard)', 'refused'], [LISTED, 'dock', 'refused']]) {
    await page.click('#paste');
    await page.fill('#paste-text', text);
    await press(page, 'Tab', 'Tab', 'Enter');
    await expectAnswer(page, name, answer);
  }
  await expectAnswer(page, 'USB Keyboard', 'input path');
  await expectAnswer(page, 'odd', 'refused');
  await page.locator('#announce').getByText("line 5: 'vendor' is no number of 32 bits line 6: no JSON").waitFor();
  await page.click('#own');
  const field = (label) => page.getByLabel(label, { exact: true });
  await field('Name').fill('amplifier');
  await field('Vendor').fill('0x10000');
  await field('Product').fill('7');
  await field('AUDIO').check();
  await page.click('#own-add');
  await page.locator('#own-error').getByText('0 to 65535').waitFor();
  await field('Vendor').fill('0x46d');
  await press(page, 'Enter');
  await expectAnswer(page, 'amplifier', 'allowed');

  // The smallest change, and the file's line ends
  const [download] = await Promise.all([page.waitForEvent('download'), press(page, 'Control+s')]);
  lines.splice(2, 0, '  <class>AINPUT_SOURCE_MOUSE</class>', '  <vid vendorid="2385"><pid>5734</pid></vid>');
  assert.equal(readFileSync(await download.path(), 'utf8'), lines.join('\r\n'));
  assert.equal(await page.locator('#file-dirty').isVisible(), false);
});

testPage('Where a page can write to disk', async (page) => {
  await page.evaluate(() => {
    window.saved = [];
    const handle = (name) => ({
      name,
      getFile: async () => new File(['<usbconfig mode="default"/>'], name),
      createWritable: async () => {
        let text = '';
        return { write: async (bytes) => { text += new TextDecoder().decode(bytes); },
          close: async () => { window.saved.push([name, text]); } };
      },
    });
    const cancel = async () => { throw new DOMException('', 'AbortError'); };
    const pickers = [cancel, async ({ suggestedName }) => handle(`new-${suggestedName}`)];
    window.showSaveFilePicker = (options) => pickers.shift()(options);
    window.showOpenFilePicker = async () => [handle('opened.xml')];
  });
  const saved = (count) => page.waitForFunction((wanted) => window.saved.length === wanted, count);
  await press(page, 'Control+s');
  assert.equal(await page.locator('#file-name').textContent(), 'usb_device_config.xml');
  await press(page, 'Control+s');
  await saved(1);
  await press(page, 'Control+o');
  await page.locator('#file-name').getByText('opened.xml').waitFor();
  await replaceText(page, '<usbconfig mode="blacklist"/>');
  await page.locator('#file-dirty').waitFor();
  await press(page, 'Control+s');
  await saved(2);
  await page.locator('#file-dirty').waitFor({ state: 'hidden' });
  const [[name], second] = await page.evaluate(() => window.saved);
  assert.deepEqual([name, second],
    ['new-usb_device_config.xml', ['opened.xml', '<usbconfig mode="blacklist"/>']]);
});

testPage('From a name to a rule', async (page) => {
  const epson = '<vid vendorid="1208"/>';
  for (const [text, query, button, expected, told] of [
    ['<usbconfig mode="blacklist"/>', '04b8', 'Block', `<usbconfig mode="blacklist">\n  ${epson}\n</usbconfig>`, 'changed'],
    [`<usbconfig mode="blacklist">\n${epson}\n</usbconfig>`, '1208', 'Allow', '<usbconfig mode="blacklist">\n</usbconfig>', 'changed'],
    [`<usbconfig mode="whitelist">\n${epson}\n</usbconfig>`, '04b8:0202', 'Allow', null, 'already'],
    ['<usbconfig mode="whitelist">\n<vid vendorid="1155"><pid>22336</pid></vid>\n<vid vendorid="9999"/>\n</usbconfig>',
      '0483:5730', 'Block', null, 'a rule would still allow it: lines 2, 3; every product of vendor 1155'],
    ['<usbconfig mode="whitelist">\n<class>USB_CLASS_MASS_STORAGE</class>\n</usbconfig>',
      '0951:1666', 'Block', null, 'Nothing is changed, but class rules would still allow'],
    ['<other/>', '04b8', 'Allow', null, 'accepted'],
  ]) {
    await replaceText(page, text);
    await press(page, 'Control+k');
    await page.fill('#query', query);
    await page.evaluate(() => { document.getElementById('announce').textContent = ''; });
    await page.locator('#found').getByRole('button', { name: new RegExp(`^${button}`) }).first().click();
    await page.locator('#announce').getByText(told).waitFor();
    assert.equal(await editorText(page), expected ?? text);
  }

  // A rule that matches more than it names says so with the answer, too
  await replaceText(page, '<usbconfig mode="whitelist"><vid vendorid="1155"><pid>1</pid></vid><vid vendorid="9999"/></usbconfig>');
  await press(page, 'Control+b');
  await row(page, 'Serial adapter').getByText('Warning: every product of vendor 1155 matches').waitFor();
});

testPage('A file that would end the daemon shows just that', async (page) => {
  await replaceText(page, '<usbconfig mode="whitelist">\n<vid vendorid="99999999999"/>\n</usbconfig>');
  await expectVerdict(page, 'crash', 'Would end the daemon', 'Unable to apply the USB Admin config rules', 'line 2');
  await page.locator('#bench.stale').waitFor();
  await open(page, 'none.xml', '<!-- no element -->');
  await expectAnswer(page, 'Memory stick', 'no answer');
  await page.locator('#findings').getByText('the document has no element').waitFor();
  await page.click('#example');
  await expectVerdict(page, 'accepted');
  await expectAnswer(page, 'Memory stick', 'allowed');
});

testPage('Large and binary files keep the page alive', async (page) => {
  const binary = Buffer.from(times(1 << 20, () => random(256)));
  const rulesOf = (count) => `<usbconfig mode="whitelist">\n${times(count, (_, i) =>
    `<vid vendorid="${i % 50000}"><pid>${i}</pid></vid>`).join('\n')}\n</usbconfig>\n`;
  const padded = rulesOf(1).replace('</usbconfig>', `<!-- ${'long line '.repeat(1 << 20)}-->\n</usbconfig>`);
  for (const [name, content, expected] of [
    ['binary', binary, 'refused'], ['many', rulesOf(100000), 'accepted'], ['long', padded, 'accepted']]) {
    await open(page, name, content);
    await page.locator('#file-name').getByText(name).waitFor({ timeout: 60000 });
    await expectVerdict(page, expected);
    const start = Date.now();
    await page.locator('.cm-content').press('Control+Home');
    await page.keyboard.type('<');
    await page.locator('#file-dirty').waitFor();
    assert.ok(Date.now() - start < 10000, `${name}: ${Date.now() - start} ms until a letter is there`);
    await expectVerdict(page, 'refused');
    }
});

testPage('Nothing leaves the page', async (page) => {
  const outcomes = await page.evaluate(() => Promise.allSettled([
    fetch('https://localhost/'),
    fetch('data:,x'),
    Object.assign(new Image(), { src: 'https://localhost/x.png' }).decode(),
  ]));
  assert.deepEqual(outcomes.map(({ status }) => status), Array(3).fill('rejected'));
}, { expected: /Content Security Policy/ });

for (const [width, colorScheme] of [[1280, 'light'], [1280, 'dark'], [400, 'light'], [400, 'dark']]) {
  testPage(`Accessible and within its bounds: ${width} pixels, ${colorScheme}`, async (page) => {
    await page.click('#base-keep');
    await replaceText(page, '<usbconfig mode="whitelist">\n<vid vendorid="1" x="y"/>\n<pid/></usbconfig>');
    await expectVerdict(page, 'refused');
    await expectAccessible(page);
    await page.click('#example');
    await expectVerdict(page, 'accepted');
    await row(page, 'Mouse').locator('.more').click();
    await expectAccessible(page);
    for (const name of ['own', 'paste', 'help']) {
      await page.click(`#${name}`);
      await expectAccessible(page);
      await page.locator(`#${name}-dialog`).press('Escape');
    }
    await press(page, 'Control+k');
    await page.keyboard.type('printer');
    await page.locator('#found > li').first().waitFor();
    await expectAccessible(page);
    assert.ok(await page.evaluate(() => document.documentElement.scrollWidth <= window.innerWidth));
  }, { viewport: { width, height: 800 }, colorScheme });
}
