// SPDX-License-Identifier: Apache-2.0
// Devices for the bench: ready-made kinds, and those that other programs print. A device is
// {name, kind: 'usb' | 'input', vendor, product, classes: codes, vendorHid}.

const usb = (name, vendor, product, classes, vendorHid = false) =>
  ({ name, kind: 'usb', vendor, product, classes, vendorHid });
const input = (name, vendor, product, ...sources) =>
  ({ name, kind: 'input', vendor, product, classes: sources, vendorHid: false });

/** Interface classes as on https://www.usb.org/defined-class-codes, sources as Android has them. */
export const READY_MADE = [
  usb('Memory stick', 0x0951, 0x1666, [8]),
  input('Keyboard', 0x046d, 0xc31c, 0x100),
  input('Mouse', 0x17ef, 0x6019, 0x2000),
  usb('Keyboard, as a USB device', 0x046d, 0xc31c, [3, 3]),
  usb('Stick that is also a keyboard', 0x1209, 0x0003, [8, 3]),
  usb('Stick with a vendor interface', 0x0930, 0x6545, [8, 0xff]),
  usb('Network adapter', 0x1209, 0x0005, [2, 10]),
  usb('Network adapter, vendor class', 0x0bda, 0x8153, [0xff]),
  usb('Serial adapter', 0x0483, 0x5740, [2, 10]),
  usb('Vendor-specific HID', 0x1209, 0x0006, [3], true),
  usb('Printer', 0x04b8, 0x0202, [7]),
  usb('Camera', 0x04a9, 0x31c0, [6]),
  usb('Webcam with microphone', 0x046d, 0x0825, [14, 14, 1, 1]),
  usb('Headset with buttons', 0x047f, 0xc025, [1, 1, 1, 3]),
  input('Game pad', 0x045e, 0x028e, 0x100, 0x400, 0x1000000),
  usb('Bluetooth adapter', 0x0a12, 0x0001, [0xe0, 0xe0]),
  usb('Smart-card reader', 0x04e6, 0x5116, [11]),
];

const MAX_ID = 0xffff;
const MAX_USB_CLASS = 0xff;
const UNKNOWN = -1;
const HID = 3;

/** 1133 or 0x046d; null for anything else. */
export function parseId(text) {
  const trimmed = text.trim();
  if (!/^(\d+|0x[0-9a-f]+)$/i.test(trimmed)) return null;
  const id = Number(trimmed);
  return id <= MAX_ID ? id : null;
}

function codeOf(entry, kind, names) {
  const upper = entry.toUpperCase();
  const prefix = kind === 'usb' ? 'USB_CLASS_' : 'AINPUT_SOURCE_';
  const code = names.get(upper) ?? names.get(prefix + upper) ?? (/^(0x[0-9a-f]+|\d+)$/i.test(entry) ? Number(entry) : NaN);
  if (!(code >= 0 && code <= (kind === 'usb' ? MAX_USB_CLASS : 0x7fffffff))) {
    throw new Error(`'${entry}' is no class of a ${kind} device`);
  }
  return code;
}

/** A device as `kusctl list --json` and `watch --json` print it; null for an event of another kind. */
function fromRecord(record, names) {
  if (typeof record !== 'object' || record === null) throw new Error('not an object');
  if ((record.event ?? 'added') !== 'added') return null;
  if (record.device) return fromRecord(record.device, names);
  const { kind = 'usb', vendor, product, classes } = record;
  if (kind !== 'usb' && kind !== 'input') throw new Error("'kind' is neither usb nor input");
  for (const [name, id] of [['vendor', vendor], ['product', product]]) {
    if (id !== (id | 0)) throw new Error(`'${name}' is no number of 32 bits`);
  }
  // The service records input devices that have no source with a name, but no USB device without classes.
  if (!Array.isArray(classes) || (kind === 'usb' && classes.length === 0)) throw new Error("'classes' is no list of some");
  const codes = classes.map((entry) => codeOf(String(entry), kind, names));
  return {
    name: String(record.name || 'unnamed'), kind, vendor, product, classes: codes,
    // The service records no other device of HID interfaces alone.
    vendorHid: kind === 'usb' && codes.every((code) => code === HID),
  };
}

function fromJson(text, names) {
  let values;
  try {
    const whole = JSON.parse(text);
    values = (Array.isArray(whole) ? whole : [whole]).map((value, i) => [value, `device ${i + 1}`]);
  } catch {
    values = [];
    text.split('\n').forEach((line, i) => {
      if (line.trim()) values.push([line, `line ${i + 1}`]);
    });
  }
  const found = { devices: [], problems: [] };
  for (const [value, place] of values) {
    try {
      const record = typeof value === 'string' ? JSON.parse(value) : value;
      const device = fromRecord(record, names);
      if (device) found.devices.push(device);
    } catch (error) {
      found.problems.push(
        `${place}: ${error instanceof SyntaxError ? 'no JSON' : error.message}`);
    }
  }
  return found;
}

const BOOT_PROTOCOLS = { 1: ['keyboard', 0x100], 2: ['mouse', 0x2000] };

/** One device of `lsusb -v`, and the input devices that a boot protocol tells of. */
function fromLsusb(block) {
  const number = (label) => {
    const found = block.match(new RegExp(`^\\s*${label}\\s+(0x[0-9a-f]+|\\d+)`, 'im'));
    return found ? Number(found[1]) : null;
  };
  const [, header] = block.match(/\bID [0-9a-f]{4}:[0-9a-f]{4} ?(.*)/i) ?? [];
  const product = block.match(/^\s*iProduct\s+\d+ (.+)/m)?.[1];
  const vendorId = number('idVendor'), productId = number('idProduct');
  const interfaces = block.split(/^\s*Interface Descriptor:/m).slice(1).map((part) => {
    const field = (label) => Number(part.match(new RegExp(`${label}\\s+(\\d+)`))?.[1] ?? NaN);
    return {
      alternate: field('bAlternateSetting'), code: field('bInterfaceClass'),
      subclass: field('bInterfaceSubClass'), protocol: field('bInterfaceProtocol'),
    };
  }).filter(({ alternate, code }) => alternate === 0 && code <= MAX_USB_CLASS);
  if (vendorId === null || productId === null || interfaces.length === 0) return [];

  const name = (product || header || 'unnamed').trim();
  const isBoot = (i) => i.code === HID && i.subclass === 1 && BOOT_PROTOCOLS[i.protocol];
  const devices = [usb(name, vendorId, productId, interfaces.map((i) => i.code))];
  for (const [what, source] of new Set(interfaces.filter(isBoot).map(
    (i) => BOOT_PROTOCOLS[i.protocol]))) {
    devices.push(input(`${name} (${what})`, vendorId, productId, source));
  }
  return devices;
}

/**
 * The devices in a text that `kusctl list --json`, `kusctl watch --json` or `lsusb -v` printed, and
 * what could not be read. `names` holds class names and their codes.
 */
export function parseDevices(text, names) {
  const isLsusb = /^Bus \d+ Device \d+: ID /m.test(text);
  // Not at the beginning alone: what is copied from a terminal may begin with the prompt.
  if (!isLsusb && /^\s*[[{]/m.test(text)) return fromJson(text, names);
  const blocks = text.split(/^(?=Bus \d+ Device \d+: ID )/m).filter((block) => block.trim());
  const found = { devices: [], problems: [] };
  for (const block of blocks) {
    const devices = fromLsusb(block);
    found.devices.push(...devices);
    if (devices.length === 0) {
      const first = block.trim().split('\n')[0].slice(0, 60);
      found.problems.push(/^Bus \d+/.test(first)
        ? `'${first}' names no interface: run lsusb with -v, as root`
        : `'${first}' is neither JSON of kusctl nor text of lsusb -v`);
    }
  }
  if (blocks.length === 0) found.problems.push('there is nothing to read');
  return found;
}

export const hex = (value, digits) => value.toString(16).padStart(digits, '0');

export const idsText = ({ vendor, product }) => vendor === UNKNOWN
  ? 'no ids' : `${hex(vendor, 4)}:${hex(product, 4)}`;

export const decimalIdsText = ({ vendor, product }) => vendor === UNKNOWN
  ? '' : `${vendor}:${product}`;

export const shortName = (name) => name.replace(/^(USB_CLASS|AINPUT_SOURCE)_/, '');

export function classesText({ classes }, namesByCode) {
  const names = classes.map((code) => namesByCode.get(code) ?? `0x${hex(code, 2)}`);
  return [...new Set(names)].map(shortName).join(', ') || 'no known source';
}
