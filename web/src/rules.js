// SPDX-License-Identifier: Apache-2.0
// Puts a rule into a rules file: the smallest change, comments and order kept.
import { xmlLanguage } from '@codemirror/lang-xml';

export const EXAMPLE = `<?xml version="1.0" encoding="UTF-8"?>
<usbconfig mode="whitelist">
  <class>USB_CLASS_MASS_STORAGE</class>
  <class>AINPUT_SOURCE_KEYBOARD</class>
  <vid vendorid="1133"/>
  <vid vendorid="1155">
    <pid>22336</pid>
    <pid>22337</pid>
  </vid>
</usbconfig>
`;

/** The elements of a remedy, or of any text of this shape: what addRule wants. */
export function rulesIn(elements) {
  const classes = [...elements.matchAll(/<class>(.*?)<\/class>/g)].map(([, name]) => ({ class: name }));
  const vendors = [...elements.matchAll(/<vid vendorid="(\d+)">(?:<pid>(\d+)<\/pid><\/vid>)?/g)]
    .map(([, vendor, product]) => ({ vendor, product: product ?? null }));
  return [...classes, ...vendors];
}

export const elementOf = (rule) => {
  if (rule.class) return `<class>${rule.class}</class>`;
  const vendor = `<vid vendorid="${rule.vendor}"`;
  return rule.product === null ? `${vendor}/>` : `${vendor}><pid>${rule.product}</pid></vid>`;
};

class Document {
  constructor(text) {
    this.text = text;
    this.root = this.#children(xmlLanguage.parser.parse(text).topNode)[0] ?? null;
  }

  #children(node) {
    return node.getChildren('Element').map((element) => this.#read(element));
  }

  #read(node) {
    const closed = node.getChild('SelfClosingTag');
    const tag = closed ?? node.getChild('OpenTag');
    const slice = (part) => (part ? this.text.slice(part.from, part.to) : '');
    const attributes = {};
    for (const attribute of tag?.getChildren('Attribute') ?? []) {
      const value = slice(attribute.getChild('AttributeValue'));
      attributes[slice(attribute.getChild('AttributeName'))] = value.slice(1, -1);
    }
    return {
      from: node.from, to: node.to, tag, closed,
      end: node.getChild('CloseTag'),
      name: slice(tag?.getChild('TagName')),
      attributes,
      text: slice(node.getChild('Text')),
      children: this.#children(node),
    };
  }

  /** What stands before an element on its line, if that is blank. */
  indentationOf(element) {
    const line = this.text.slice(this.text.lastIndexOf('\n', element.from - 1) + 1, element.from);
    return /^[ \t]*$/.test(line) ? line : '';
  }

  lineOf(element) {
    return this.text.slice(0, element.from).split('\n').length;
  }

  /** A comment behind an element, on its line, stays there. */
  #endOf(element) {
    const [comment] = this.text.slice(element.to).match(/^(?:[ \t]*<!--(?:(?!-->).)*-->)+(?=[ \t]*\n)/) ?? [''];
    return element.to + comment.length;
  }

  /** Puts `lines` into `parent`, below `last` or as its first content. */
  insertion(parent, last, lines) {
    const indentation = last ? this.indentationOf(last) : `${this.indentationOf(parent)}  `;
    const text = lines.map((line) => `\n${indentation}${line}`).join('');
    if (parent.closed) {
      const slash = this.text.lastIndexOf('/', parent.closed.to);
      return { from: slash, to: parent.closed.to,
        insert: `>${text}\n${this.indentationOf(parent)}</${parent.name}>` };
    }
    const from = last ? this.#endOf(last) : parent.tag.to;
    // A tag that is closed on the line of its beginning gets a line of its own.
    const alone = this.text.slice(from, parent.end?.from ?? from).trim() === '' &&
      !this.text.slice(from, parent.end?.from ?? from).includes('\n');
    return { from, to: from, insert: alone ? `${text}\n${this.indentationOf(parent)}` : text };
  }
}

function placeOf(document, rule) {
  const { root } = document;
  const named = (name) => root.children.filter((child) => child.name === name);
  const already = (element) => ({ listed: document.lineOf(element) });
  if (rule.class) {
    const classes = named('class');
    const same = classes.find((element) => element.text === rule.class);
    if (same) return already(same);
    return document.insertion(root, classes.at(-1), [elementOf(rule)]);
  }
  const vendors = named('vid').filter(({ attributes }) => attributes.vendorid === rule.vendor);
  const products = (vendor) => vendor.children.filter(({ name }) => name === 'pid');
  const whole = vendors.find((vendor) => products(vendor).length === 0);
  if (whole) return already(whole);
  if (rule.product !== null) {
    const same = vendors.flatMap(products).find((element) => element.text === rule.product);
    if (same) return already(same);
    if (vendors.length > 0) {
      const vendor = vendors.at(-1);
      return document.insertion(vendor, vendor.children.at(-1), [`<pid>${rule.product}</pid>`]);
    }
    return document.insertion(root, root.children.at(-1), [
      `<vid vendorid="${rule.vendor}">`, `  <pid>${rule.product}</pid>`, '</vid>']);
  }
  return document.insertion(root, root.children.at(-1), [elementOf(rule)]);
}

/**
 * The change that puts a rule into a text: {from, to, insert}, or {listed: line} where it is there
 * already, or {problem}.
 */
export function addRule(text, rule) {
  const document = new Document(text);
  const { root } = document;
  if (root?.name !== 'usbconfig' || !(root.closed || root.end)) {
    return { problem: 'There is no usbconfig element that a rule could be put into.' };
  }
  return placeOf(document, rule);
}
