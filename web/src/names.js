// SPDX-License-Identifier: Apache-2.0
// Vendors and products by name, from the public USB id list that the build put in.
import packed from 'usb.ids.gz';

async function unpack(bytes) {
  const stream = new Blob([bytes]).stream().pipeThrough(new DecompressionStream('gzip'));
  return new Response(stream).text();
}

/** Lines "vvvv  Vendor" and, below each, "\tpppp  Product". */
function parse(text) {
  const entries = [];
  let vendor = null;
  for (const line of text.split('\n')) {
    const product = line.startsWith('\t');
    const id = parseInt(line.slice(product ? 1 : 0), 16);
    const name = line.slice(product ? 7 : 6);
    if (Number.isNaN(id)) continue;
    const entry = product
      ? { vendor: vendor.vendor, product: id, vendorName: vendor.vendorName, name }
      : { vendor: id, product: null, vendorName: name, name: '' };
    if (!product) vendor = entry;
    entry.text = `${entry.vendorName} ${entry.name}`.toLowerCase();
    entries.push(entry);
  }
  return entries;
}

const ID = /^(?:(0x)?([0-9a-f]{1,5}))(?::(?:0x)?([0-9a-f]{1,5}))?$/;

/** What a query such as 046d, 0x046d, 1133 or 046d:c31c may mean, as a filter; null for none. */
function idFilter(query) {
  const [, prefix, first, second] = query.match(ID) ?? [];
  if (!first) return null;
  const readings = [];
  if (first.length === 4 || prefix) readings.push(16);
  if (/^\d+$/.test(first) && !prefix) readings.push(10);
  if (readings.length === 0) return null;
  return (entry) => readings.some((base) => parseInt(first, base) === entry.vendor &&
    (second === undefined || parseInt(second, base) === entry.product));
}

export class Names {
  #entries = [];
  #vendors = new Map();

  async load() {
    this.#entries = parse(await unpack(packed));
    for (const entry of this.#entries) {
      if (entry.product === null) this.#vendors.set(entry.vendor, entry.vendorName);
    }
  }

  vendor(id) {
    return this.#vendors.get(id) ?? '';
  }

  /** Entries that every word of the query is in, or with the ids that it names; vendors first. */
  search(query) {
    const wanted = query.toLowerCase().trim();
    if (!wanted) return [];
    const words = wanted.split(/\s+/);
    const named = (entry) => words.every((word) => entry.text.includes(word));
    const identified = idFilter(wanted) ?? (() => false);
    const found = this.#entries.filter((entry) => identified(entry) || named(entry));
    const rank = (entry) => (identified(entry) ? 0 : 2) + (entry.product === null ? 0 : 1);
    return found.sort((a, b) => rank(a) - rank(b));
  }
}
