// SPDX-License-Identifier: Apache-2.0
// The text editor: rules in XML, with the engine's findings in its margin.
import { autocompletion, closeBrackets, completionKeymap } from '@codemirror/autocomplete';
import { defaultKeymap, history, historyKeymap } from '@codemirror/commands';
import { xml, xmlLanguage } from '@codemirror/lang-xml';
import { bracketMatching, HighlightStyle, indentOnInput, syntaxHighlighting } from '@codemirror/language';
import { lintGutter, lintKeymap, setDiagnostics } from '@codemirror/lint';
import { unifiedMergeView } from '@codemirror/merge';
import { highlightSelectionMatches, search, searchKeymap } from '@codemirror/search';
import { Compartment, EditorState } from '@codemirror/state';
import { drawSelection, EditorView, highlightActiveLine, highlightActiveLineGutter,
  highlightSpecialChars, keymap, lineNumbers } from '@codemirror/view';
import { tags } from '@lezer/highlight';

// More marks than anybody reads; the list of warnings has its own limit.
const MOST_MARKS = 1000;
// A larger text is compared by its devices alone: marking its lines takes too long.
const LARGEST_MARKED_COMPARISON = 1 << 20;

const theme = EditorView.theme({
  '&': { color: 'var(--text)', backgroundColor: 'var(--panel)' },
  '&.cm-focused': { outline: '2px solid var(--accent)', outlineOffset: '-2px' },
  '.cm-scroller': { fontFamily: 'var(--mono)', lineHeight: '1.55' },
  '.cm-content': { caretColor: 'var(--text)', padding: '.5rem 0' },
  '.cm-cursor': { borderLeftColor: 'var(--text)' },
  '.cm-gutters': { backgroundColor: 'var(--raised)', color: 'var(--muted)', border: '0',
    borderRight: '1px solid var(--line)' },
  '.cm-lineNumbers .cm-gutterElement': { minWidth: '2.2rem' },
  '.cm-activeLine': { backgroundColor: 'color-mix(in srgb, var(--accent) 7%, transparent)' },
  '.cm-activeLineGutter': { backgroundColor: 'transparent', color: 'var(--text)' },
  '&.cm-focused > .cm-scroller > .cm-selectionLayer .cm-selectionBackground, .cm-selectionBackground':
    { backgroundColor: 'var(--select)' },
  '.cm-selectionMatch': { backgroundColor: 'color-mix(in srgb, var(--accent) 18%, transparent)' },
  '&.cm-focused .cm-matchingBracket': { backgroundColor: 'var(--select)', color: 'inherit' },
  '.cm-tooltip': { backgroundColor: 'var(--panel)', color: 'var(--text)',
    border: '1px solid var(--line)', borderRadius: '6px', boxShadow: 'var(--shadow)' },
  '.cm-tooltip.cm-tooltip-autocomplete > ul > li[aria-selected]':
    { backgroundColor: 'var(--accent)', color: 'var(--on-accent)' },
  '.cm-diagnostic': { padding: '.35rem .6rem', fontFamily: 'inherit' },
  '.cm-panels': { backgroundColor: 'var(--raised)', color: 'var(--text)' },
  '.cm-panels.cm-panels-bottom': { borderTop: '1px solid var(--line)' },
  '.cm-panel.cm-search': { padding: '.4rem .6rem' },
  '.cm-panel.cm-search label': { color: 'var(--text)' },
  '.cm-textfield, .cm-button': { backgroundImage: 'none', backgroundColor: 'var(--panel)',
    color: 'var(--text)', border: '1px solid var(--edge)', borderRadius: '4px', height: '1.7rem' },
  '.cm-deletedChunk': { backgroundColor: 'var(--bad-ground)', color: 'var(--bad)',
    paddingLeft: '6px' },
  '.cm-deletedChunk .cm-deletedText': { background: 'none', textDecoration: 'line-through' },
  '&.cm-merge-b .cm-changedLine': { backgroundColor: 'var(--ok-ground)' },
  '&.cm-merge-b .cm-changedText': { background: 'none',
    backgroundColor: 'color-mix(in srgb, var(--ok) 14%, transparent)' },
  '.cm-changedLineGutter': { background: 'var(--ok)' },
  '.cm-deletedLineGutter': { background: 'var(--bad)' },
});

const highlighting = syntaxHighlighting(HighlightStyle.define([
  { tag: [tags.tagName, tags.angleBracket], color: 'var(--tag)' },
  { tag: tags.attributeName, color: 'var(--name)' },
  { tag: tags.attributeValue, color: 'var(--value)' },
  { tag: [tags.comment, tags.processingInstruction, tags.documentMeta], color: 'var(--comment)' },
  { tag: tags.invalid, color: 'var(--bad)' },
]));

/** What may stand where in a rules file, for completion. */
function language(classNames) {
  const options = classNames.filter((row) => !row.restricted).map(({ name }) => ({ label: name }));
  const completeClass = (context) => {
    const before = context.matchBefore(/<class>\w*/);
    return before && { from: before.from + '<class>'.length, options, validFor: /^\w*$/ };
  };
  const elements = [
    { name: 'usbconfig', top: true, children: ['class', 'vid'],
      attributes: [{ name: 'mode', values: ['default', 'whitelist', 'blacklist'] }] },
    { name: 'class', children: [] },
    { name: 'vid', children: ['pid'], attributes: ['vendorid'] },
    { name: 'pid', children: [] },
  ];
  return [xml({ elements }), xmlLanguage.data.of({ autocomplete: completeClass })];
}

const darkness = matchMedia('(prefers-color-scheme: dark)');

export class Editor {
  #dark = new Compartment();
  #language = new Compartment();
  #comparison = new Compartment();
  #extensions;
  #base = null;

  constructor(parent, nonce, whenChanged) {
    this.#extensions = [
      EditorView.cspNonce.of(nonce),
      lineNumbers(), lintGutter(), highlightActiveLineGutter(), highlightActiveLine(),
      highlightSpecialChars(), history(), drawSelection(), indentOnInput(), bracketMatching(),
      closeBrackets(), highlightSelectionMatches(), search({ top: false }),
      autocompletion({ icons: false }),
      EditorView.contentAttributes.of({ 'aria-label': 'Rules file' }),
      EditorView.updateListener.of((update) => update.docChanged && whenChanged()),
      keymap.of([...completionKeymap, ...lintKeymap, ...searchKeymap, ...historyKeymap,
        ...defaultKeymap]),
      theme, highlighting,
      this.#dark.of(EditorView.darkTheme.of(darkness.matches)),
      this.#language.of(language([])),
      this.#comparison.of([]),
    ];
    this.view = new EditorView({ parent, state: this.#stateOf('') });
    darkness.addEventListener('change', () => this.#set(
      this.#dark, EditorView.darkTheme.of(darkness.matches)));
  }

  #stateOf(doc) {
    return EditorState.create({ doc, extensions: this.#extensions });
  }

  #set(compartment, extension) {
    this.view.dispatch({ effects: compartment.reconfigure(extension) });
  }

  setClassNames(rows) {
    this.#set(this.#language, language(rows));
    this.classNames = rows;
  }

  get doc() {
    return this.view.state.doc;
  }

  /** A new text, with a history of its own. */
  open(text) {
    this.view.setState(this.#stateOf(text));
    if (this.classNames) this.setClassNames(this.classNames);
    this.#set(this.#dark, EditorView.darkTheme.of(darkness.matches));
    this.compare(this.#base);
  }

  /** Replaces the text so that it can be undone. */
  replace(text) {
    this.view.dispatch({ changes: { from: 0, to: this.doc.length, insert: text } });
  }

  change(transaction) {
    this.view.dispatch({ ...transaction, scrollIntoView: true, userEvent: 'input.rule' });
  }

  goTo(lineNumber) {
    const line = this.doc.line(Math.min(Math.max(lineNumber, 1), this.doc.lines));
    this.view.dispatch({
      selection: { anchor: line.from },
      effects: EditorView.scrollIntoView(line.from, { y: 'center' }),
    });
    this.view.focus();
  }

  /** Marks what differs from `base`, a text, or nothing where that is null. */
  compare(base) {
    this.#base = base;
    const marked = base !== null &&
      base.length < LARGEST_MARKED_COMPARISON && this.doc.length < LARGEST_MARKED_COMPARISON;
    this.#set(this.#comparison, marked
      ? unifiedMergeView({ original: base, mergeControls: false,
        syntaxHighlightDeletions: false })
      : []);
  }

  /** Marks findings (line, severity, message, cure); those without a line are not shown here. */
  show(findings) {
    const { doc } = this;
    const marks = findings.filter(({ line }) => line > 0 && line <= doc.lines)
      .slice(0, MOST_MARKS).map(({ line, severity, message, cure }) => {
        const { from, to, text } = doc.line(line);
        return { from: from + text.search(/\S|$/), to, severity,
          message: cure ? `${message}: ${cure}` : message };
      });
    this.view.dispatch(setDiagnostics(this.view.state, marks));
  }
}
