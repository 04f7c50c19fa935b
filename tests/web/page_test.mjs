// SPDX-License-Identifier: Apache-2.0
// usage: node page_test.mjs DIR_OF_THE_PAGE KUSCTL [NUMBER]: NUMBER begins the random rules
import assert from 'node:assert/strict';
import { execFileSync, spawnSync } from 'node:child_process';
import { mkdtempSync, readdirSync, readFileSync, rmSync, writeFileSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { dirname, join } from 'node:path';
import { fileURLToPath } from 'node:url';

import { axe, finish, kusctl, test, withPage } from './harness.mjs';

const CORPUS = join(dirname(fileURLToPath(import.meta.url)), '../../fuzz/corpus/rules');
const FILES = 10000;
const FILES_PER_REQUEST = 500;
const DECIDING_FILES = 100;
const DEVICES_PER_FILE = 101;
const FILES_PER_TRACE = 4;
const MANY_BYTES = 256 << 20;

// Random rules

let state = Number(process.argv[4] ?? 1);
function random(limit) {
  state = (state + 0x6d2b79f5) | 0;
  let mixed = Math.imul(state ^ (state >>> 15), 1 | state);
  mixed = (mixed + Math.imul(mixed ^ (mixed >>> 7), 61 | mixed)) ^ mixed;
  return ((mixed ^ (mixed >>> 14)) >>> 0) % limit;
}
const pick = (...choices) => choices[random(choices.length)];
const often = (usual, rare) => (random(12) > 0 ? usual() : rare());
const times = (count, make) => Array.from({ length: count }, make);

const USB = ['AUDIO', 'COMM', 'PRINTER', 'MASS_STORAGE', 'CDC_DATA', 'VIDEO', 'WIRELESS_CONTROLLER'];
const INPUT = ['KEYBOARD', 'MOUSE', 'GAMEPAD', 'TOUCHPAD', 'JOYSTICK'];
const className = () => often(
  () => pick(...USB.map((name) => `USB_CLASS_${name}`), ...INPUT.map((name) => `AINPUT_SOURCE_${name}`)),
  () => pick('USB_CLASS_HID', 'USB_CLASS_PHYSICAL', '', ' USB_CLASS_AUDIO', 'a<!-- b -->c', '<pid>1</pid>'));
const id = () => often(() => String(random(8)),
  () => pick('', '65536', '2147483647', '2147483648', '99999999999', '0x1', '-1', ' 1', '1<b/>2', '&#49;', '\xff', '0x'));
const rule = () => often(
  () => pick(
    () => `<class>${className()}</class>`,
    () => `<vid vendorid="${id()}"/>`,
    () => `<vid vendorid="${id()}">${times(1 + random(3), () => `<pid>${id()}</pid>`).join('\n')}</vid>`)(),
  () => pick('<vid/>', '<VID vendorid="1"/>', '<vid vendorid="2" productid="3"/>', '<!-- note -->', 'text',
    '<vid vendorid="3"><x/><pid>1</pid><y>2</y></vid>', '<class', '\0', '&amp;', '<![CDATA[x]]>'));
const mode = () => often(() => pick('whitelist', 'blacklist'), () => pick('default', 'Whitelist', '', ' whitelist'));
const rules = () => often(() => '<?xml version="1.0" encoding="UTF-8"?>\n', () => pick('', '\uFEFF', '\r\n', 'x')) +
  often(() => `<usbconfig mode="${mode()}">\n${times(random(6), rule).join(pick('\n', '\r\n', '\n  '))}\n</usbconfig>`,
    () => pick('', '<usbconfig mode="whitelist"/>', '<config mode="default"/>', '<usbconfig/>', '<usbconfig>', '<!-- -->')) +
  often(() => '\n', () => pick('<more/>', '</usbconfig>', '\0<x>', 'text'));

const device = () => pick(
  () => ({ kind: 'usb', classes: times(1 + random(3), () => pick(1, 2, 3, 7, 8, 10, 14, 0xe0, 0xff, 0x42)) }),
  () => ({ kind: 'input', classes: times(1 + random(2), () => pick(0x100, 0x2000, 0x400, 0x100000, 0x1000000)) }))();
// The service lists no other USB device of HID alone than a vendor's own; the first is asked by itself.
const devices = () => times(DEVICES_PER_FILE, (_, i) => (
  { name: 'd', vendor: random(8), product: random(8), vendorHid: i > 0, ...device() }));

// Asking both

// In what neither can print, the two replace different numbers of bytes.
const comparable = (text) => text.replace(/\uFFFD+/g, '\uFFFD');
const finding = ({ verdict, status, line, warnings }) => ({
  verdict, status: comparable(status), line,
  warnings: warnings.map((warning) => (
    { ...warning, message: comparable(warning.message), cure: comparable(warning.cure) })),
});

/** What the page's engine says of requests: {rules as latin-1 text, devices}. */
async function askPage(page, requests) {
  const reports = [];
  for (let i = 0; i < requests.length; i += FILES_PER_REQUEST) {
    reports.push(...await page.evaluate((batch) => new Promise((resolve) => {
      const answers = [];
      window.engineWorker.addEventListener('message', function listen({ data }) {
        if (!String(data.id).startsWith('test')) return;
        answers.push(data.result ?? data);
        if (answers.length < batch.length) return;
        window.engineWorker.removeEventListener('message', listen);
        resolve(answers);
      });
      for (const { rules, devices } of batch) {
        window.engineWorker.postMessage({ id: 'test', request: 'evaluate', devices,
          rules: Uint8Array.from(rules, (c) => c.charCodeAt(0)) });
      }
    }), requests.slice(i, i + FILES_PER_REQUEST)));
  }
  return reports;
}

function lint(paths) {
  const { stdout } = spawnSync(kusctl, ['lint', '--json', ...paths], { maxBuffer: MANY_BYTES });
  return JSON.parse(stdout);
}

const folder = mkdtempSync(join(tmpdir(), 'kus-page-'));
function write(name, text) {
  const path = join(folder, name);
  writeFileSync(path, text, 'latin1');
  return path;
}

const corpus = readdirSync(CORPUS).map((name) => readFileSync(join(CORPUS, name), 'latin1'));
const texts = [...corpus, ...times(FILES, () => Buffer.from(rules()).toString('latin1'))];
const native = lint(texts.map((text, i) => write(`${i}.xml`, text)));

await test('Findings are those of kusctl', () => withPage({}, async (page) => {
  const reports = await askPage(page, texts.map((text) => ({ rules: text, devices: [] })));
  const counts = {};
  reports.forEach((report, i) => {
    counts[report.verdict] = (counts[report.verdict] ?? 0) + 1;
    assert.deepEqual(finding(report), finding(native[i]), texts[i]);
  });
  // A comparison of files that are all refused would be none.
  assert.ok(Object.values(counts).length === 3 && Math.min(...Object.values(counts)) > 100, JSON.stringify(counts));
}));

await test('Answers are those of kusctl', () => withPage({}, async (page) => {
  const accepted = texts.filter((_, i) => native[i].verdict === 'accepted').slice(0, DECIDING_FILES);
  const requests = accepted.map((text) => ({ rules: text, devices: devices() }));
  const reports = await askPage(page, requests);
  const counts = {};
  requests.forEach(({ rules: text, devices: asked }, i) => {
    const path = write('rules.xml', text);
    const hex = (code) => `0x${code.toString(16).padStart(2, '0')}`;
    const [first, ...others] = asked;
    const lines = others.map((one) => JSON.stringify({ ...one, classes: one.classes.map(hex) }));
    const expected = execFileSync(kusctl, ['check', '--rules', path, '--json', '--devices', '-'],
      { input: lines.join('\n'), stdio: 'pipe' }).toString().trim().split('\n').map((line) => JSON.parse(line));
    const [answer, ...answers] = reports[i].answers;
    assert.deepEqual(answers.map(({ allowed, reason }) => [allowed, reason]),
      expected.map(({ allowed, reason }) => [allowed, reason]), text);
    for (const { allowed } of expected) counts[allowed] = (counts[allowed] ?? 0) + 1;
    // The log and the remedies, which kusctl tells of one device at a time.
    if (i % FILES_PER_TRACE !== 0) return;
    const { kind, vendor, product, classes } = first;
    const one = spawnSync(kusctl, ['check', '--rules', path, '--json', '--verbose', '--vendor', vendor,
      '--product', product, kind === 'usb' ? '--class' : '--input', classes.join()].map(String));
    const { allowed, warnings, wouldBeAllowedBy } = JSON.parse(one.stdout);
    assert.deepEqual([answer.allowed, answer.warnings, answer.remedies], [allowed, warnings, wouldBeAllowedBy], text);
    assert.equal(answer.log.map((line) => `${line}\n`).join(''), one.stderr.toString(), text);
  });
  assert.ok(Math.min(counts.true, counts.false) > 1000, JSON.stringify(counts));
}));

// A user

const verdict = (page) => page.locator('#verdict');
async function expectVerdict(page, name, ...texts) {
  await page.locator(`#verdict[data-verdict=${name}]`).waitFor({ timeout: 60000 });
  for (const text of texts) await verdict(page).getByText(text).waitFor();
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
async function replaceText(page, text) {
  await page.keyboard.press('Control+e');
  await page.keyboard.press('Control+a');
  await paste(page, text);
}
async function chooseFile(page, key, name, content) {
  const [chooser] = await Promise.all([page.waitForEvent('filechooser'), key()]);
  await chooser.setFiles({ name, mimeType: 'text/xml', buffer: Buffer.from(content) });
}
const open = (page, name, content) =>
  chooseFile(page, () => page.keyboard.press('Control+o'), name, content);
async function save(page) {
  const [download] = await Promise.all([page.waitForEvent('download'), page.keyboard.press('Control+s')]);
  return readFileSync(await download.path(), 'utf8');
}
async function expectAccessible(page) {
  await page.evaluate(axe);
  const { violations } = await page.evaluate(() => window.axe.run({ resultTypes: ['violations'] }));
  assert.deepEqual(violations.map(({ id: rule, nodes }) => [rule, nodes.map(({ html }) => html)]), []);
}

const LSUSB = `[me@desk ~]$ lsusb -v
Bus 001 Device 004: ID 046d:c31c Logitech, Inc. Keyboard K120
Device Descriptor:
  bDeviceClass            0
  idVendor           0x046d Logitech, Inc.
  idProduct          0xc31c Keyboard K120
  iProduct                2 USB Keyboard
    Interface Descriptor:
      bInterfaceNumber        0
      bAlternateSetting       0
      bInterfaceClass         3 Human Interface Device
      bInterfaceSubClass      1 Boot Interface Subclass
      bInterfaceProtocol      1 Keyboard
Bus 001 Device 005: ID 04b8:0005 Seiko Epson Corp. Printer
`;
const LISTED = `$ kusctl watch --json
{"event":"added","device":{"kind":"usb","name":"dock","vendor":6127,"product":12,"classes":["audio","0x42"]}}
{"event":"service-died"}
{"vendor":5000000000,"product":1,"classes":["audio"]}
{"kind":"usb","name":"cut`;

await test('The way of a user', () => withPage({}, async (page) => {
  // A file of one's own, with its line ends
  await open(page, 'mine.xml', '<usbconfig mode="whitelist">\r\n  <class>USB_CLASS_AUDIO</class><!-- mine -->\r\n</usbconfig>\r\n');
  await expectVerdict(page, 'accepted', 'SUCCESS');
  await expectAnswer(page, 'Mouse', 'refused');

  // What is wrong with it while it is typed
  await page.keyboard.press('Control+e');
  await page.keyboard.press('Control+Home');
  await page.keyboard.press('ArrowDown');
  await page.keyboard.press('End');
  await paste(page, '\n  <pid>1</pid>');
  await expectVerdict(page, 'refused', 'INVALID TAG:pid', 'line 3');
  await page.locator('.cm-lint-marker-error').waitFor();
  await page.locator('#findings').getByText('Refused: INVALID TAG:pid').waitFor();
  await page.locator('#summary').getByText('answers from before the error').waitFor();
  await page.keyboard.press('Control+z');
  await expectVerdict(page, 'accepted');
  await page.keyboard.type('<class>USB_V');
  await page.locator('.cm-tooltip-autocomplete').getByText('USB_CLASS_VIDEO').waitFor();
  for (const key of ['Escape', ...Array(20).fill('Control+z')]) await page.keyboard.press(key);

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
  await page.keyboard.press('Control+k');
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
    await page.keyboard.press('Tab');
    await page.keyboard.press('Tab');
    await page.keyboard.press('Enter');
    await expectAnswer(page, name, answer);
  }
  await expectAnswer(page, 'USB Keyboard', 'input path');
  await page.locator('#announce').getByText("line 4: 'vendor' is no number of 32 bits line 5: no JSON").waitFor();
  await page.click('#own');
  await page.getByLabel('Name', { exact: true }).fill('amplifier');
  await page.getByLabel('Vendor', { exact: true }).fill('0x10000');
  await page.getByLabel('Product', { exact: true }).fill('7');
  await page.getByLabel('AUDIO', { exact: true }).check();
  await page.click('#own-add');
  await page.locator('#own-error').getByText('0 to 65535').waitFor();
  await page.getByLabel('Vendor', { exact: true }).fill('0x46d');
  await page.click('#own-add');
  await expectAnswer(page, 'amplifier', 'allowed');

  // The smallest change, and the file's line ends
  assert.equal(await save(page), ['<usbconfig mode="whitelist">', '  <class>USB_CLASS_AUDIO</class><!-- mine -->',
    '  <class>AINPUT_SOURCE_MOUSE</class>', '  <vid vendorid="2385"><pid>5734</pid></vid>',
    '</usbconfig>', ''].join('\r\n'));
  assert.equal(await page.locator('#file-dirty').isVisible(), false);
}));

await test('Where a page can write to disk', () => withPage({}, async (page) => {
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
  await page.keyboard.press('Control+s');
  assert.equal(await page.locator('#file-name').textContent(), 'usb_device_config.xml');
  await page.keyboard.press('Control+s');
  await saved(1);
  await page.keyboard.press('Control+o');
  await page.locator('#file-name').getByText('opened.xml').waitFor();
  await replaceText(page, '<usbconfig mode="blacklist"/>');
  await page.locator('#file-dirty').waitFor();
  await page.keyboard.press('Control+s');
  await saved(2);
  await page.locator('#file-dirty').waitFor({ state: 'hidden' });
  const [[name], second] = await page.evaluate(() => window.saved);
  assert.deepEqual([name, second],
    ['new-usb_device_config.xml', ['opened.xml', '<usbconfig mode="blacklist"/>']]);
}));

await test('From a name to a rule', () => withPage({}, async (page) => {
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
    await page.keyboard.press('Control+k');
    await page.fill('#query', query);
    await page.evaluate(() => { document.getElementById('announce').textContent = ''; });
    await page.locator('#found').getByRole('button', { name: new RegExp(`^${button}`) }).first().click();
    await page.locator('#announce').getByText(told).waitFor();
    assert.equal(await editorText(page), expected ?? text);
  }

  // A rule that matches more than it names says so with the answer, too
  await replaceText(page, '<usbconfig mode="whitelist"><vid vendorid="1155"><pid>1</pid></vid><vid vendorid="9999"/></usbconfig>');
  await page.keyboard.press('Control+b');
  await row(page, 'Serial adapter').getByText('Warning: every product of vendor 1155 matches').waitFor();
}));

await test('A file that would end the daemon shows just that', () => withPage({}, async (page) => {
  await replaceText(page, '<usbconfig mode="whitelist">\n<vid vendorid="99999999999"/>\n</usbconfig>');
  await expectVerdict(page, 'crash', 'Would end the daemon', 'Unable to apply the USB Admin config rules', 'line 2');
  await page.locator('#bench.stale').waitFor();
  page.once('dialog', (dialog) => dialog.accept());
  await open(page, 'none.xml', '<!-- no element -->');
  await expectAnswer(page, 'Memory stick', 'no answer');
  await page.locator('#findings').getByText('the document has no element').waitFor();
  await page.click('#example');
  await expectVerdict(page, 'accepted');
  await expectAnswer(page, 'Memory stick', 'allowed');
}));

await test('Large and binary files keep the page alive', () => withPage({}, async (page) => {
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
    page.once('dialog', (dialog) => dialog.accept());
  }
}));

await test('Nothing leaves the page', () => withPage({ expected: /Content Security Policy/ }, async (page) => {
  const blocked = await page.evaluate(async () => {
    const tries = [() => fetch('https://localhost/'), () => fetch('data:,x'),
      () => new Promise((resolve, reject) => {
        const image = new Image();
        image.onload = resolve;
        image.onerror = reject;
        image.src = 'https://localhost/x.png';
      })];
    const outcomes = await Promise.allSettled(tries.map((attempt) => attempt()));
    return outcomes.every(({ status }) => status === 'rejected');
  });
  assert.ok(blocked);
}));

for (const [width, colorScheme] of [[1280, 'light'], [1280, 'dark'], [400, 'light'], [400, 'dark']]) {
  await test(`Accessible and within its bounds: ${width} pixels, ${colorScheme}`, () =>
    withPage({ viewport: { width, height: 800 }, colorScheme }, async (page) => {
      await page.click('#base-keep');
      await replaceText(page, '<usbconfig mode="whitelist">\n<vid vendorid="1" x="y"/>\n<pid/></usbconfig>');
      await expectVerdict(page, 'refused');
      await expectAccessible(page);
      await page.click('#example');
      await expectVerdict(page, 'accepted');
      await row(page, 'Mouse').locator('.more').click();
      await expectAccessible(page);
      for (const [button, dialog] of [['#own', '#own-dialog'], ['#paste', '#paste-dialog'], ['#help', '#help-dialog']]) {
        await page.click(button);
        await expectAccessible(page);
        await page.locator(dialog).press('Escape');
      }
      await page.keyboard.press('Control+k');
      await page.keyboard.type('printer');
      await page.locator('#found > li').first().waitFor();
      await expectAccessible(page);
      assert.ok(await page.evaluate(() => document.documentElement.scrollWidth <= window.innerWidth));
    }));
}

rmSync(folder, { recursive: true });
await finish();
