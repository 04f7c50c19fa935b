// SPDX-License-Identifier: Apache-2.0
// usage: node bundle.mjs DIR: makes DIR/kus_rules.html of the sources beside this file, and of the
// engine.wasm and node_modules in DIR.
import { createHash, randomBytes } from 'node:crypto';
import { readFileSync, writeFileSync } from 'node:fs';
import { createRequire } from 'node:module';
import { dirname, join, resolve } from 'node:path';
import { fileURLToPath } from 'node:url';
import { gzipSync } from 'node:zlib';

const USB_IDS = '/usr/share/misc/usb.ids';
const here = dirname(fileURLToPath(import.meta.url));
const out = resolve(process.argv[2]);
const esbuild = createRequire(join(out, 'package.json'))('esbuild');

/** What the page needs of the list: vendors and their products, which end where classes begin. */
function usbIds() {
  const lines = readFileSync(USB_IDS, 'utf8').split('\n');
  const end = lines.findIndex((line) => line.startsWith('C '));
  const wanted = lines.slice(0, end).filter((line) => /^\t?[0-9a-f]{4}  /.test(line));
  return gzipSync(wanted.join('\n'), { level: 9 });
}

/** Modules that exist only here: `contents` by name. */
const made = (modules) => ({
  name: 'made',
  setup(build) {
    const filter = new RegExp(`^(${Object.keys(modules).join('|')})$`);
    build.onResolve({ filter }, ({ path }) => ({ path, namespace: 'made' }));
    build.onLoad({ filter: /.*/, namespace: 'made' }, ({ path }) => modules[path]);
  },
});

async function bundle(entry, modules = {}) {
  const { outputFiles } = await esbuild.build({
    entryPoints: [join(here, entry)],
    nodePaths: [join(out, 'node_modules')],
    bundle: true,
    minify: true,
    write: false,
    format: 'iife',
    loader: { '.xml': 'text' },
    target: ['chrome110', 'firefox115', 'safari16.4'],
    // A script's end inside a script would end the page's.
    supported: { 'inline-script': false },
    legalComments: 'none',
    logLevel: 'warning',
    plugins: [made(modules)],
  });
  return outputFiles[0].text;
}

const worker = await bundle('src/worker.js', {
  'engine.wasm': { contents: readFileSync(join(out, 'engine.wasm')), loader: 'binary' },
});
const script = await bundle('src/main.js', {
  'worker-source': { contents: worker, loader: 'text' },
  'usb.ids.gz': { contents: usbIds(), loader: 'binary' },
});
const style = await bundle('style.css');

const hash = (text) => `'sha256-${createHash('sha256').update(text).digest('base64')}'`;
// The editor makes a style element as it starts, which no hash can foresee.
const nonce = randomBytes(16).toString('base64');
// Nothing is loaded, and nothing can be sent: the worker and the list come out of the script.
const policy = [
  "default-src 'none'",
  `script-src ${hash(script)} 'wasm-unsafe-eval'`,
  'worker-src blob:',
  `style-src ${hash(style)} 'nonce-${nonce}'`,
  'img-src data:',
  "base-uri 'none'",
  "form-action 'none'",
].join('; ');

const parts = { policy, nonce, style, script };
const page = readFileSync(join(here, 'index.html'), 'utf8')
  .replace(/\{\{(\w+)\}\}/g, (_, part) => parts[part]);
writeFileSync(join(out, 'kus_rules.html'), page);
