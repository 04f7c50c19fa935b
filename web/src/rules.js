// SPDX-License-Identifier: Apache-2.0
/** What the elements of a remedy are about: {className} or {vendor, product}. */
export function subjectsOf(remedy) {
  return [
    ...[...remedy.matchAll(/<class>(.*?)<\/class>/g)].map(([, className]) => ({ className })),
    ...[...remedy.matchAll(/<vid vendorid="(\d+)"><pid>(\d+)<\/pid>/g)].map(
      ([, vendor, product]) => ({ vendor: Number(vendor), product: Number(product) })),
  ];
}

/** What turns one text into another, as one change: {from, to, insert}; null for the same text. */
export function changeBetween(before, after) {
  if (before === after) return null;
  const shorter = Math.min(before.length, after.length);
  let from = 0;
  while (from < shorter && before[from] === after[from]) ++from;
  let same = 0;
  while (same < shorter - from && before.at(-1 - same) === after.at(-1 - same)) ++same;
  return { from, to: before.length - same, insert: after.slice(from, after.length - same) };
}
