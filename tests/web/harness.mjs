// SPDX-License-Identifier: Apache-2.0
// usage of a test: test(name, async () => …); await finish();
import { readFileSync } from 'node:fs';
import { createRequire } from 'node:module';
import { join, resolve } from 'node:path';
import { pathToFileURL } from 'node:url';

const [built, kusctlPath] = process.argv.slice(2).map((path) => resolve(path));
const require = createRequire(join(built, 'package.json'));
const { chromium } = require('playwright-core');

export const kusctl = kusctlPath;
export const axe = readFileSync(require.resolve('axe-core'), 'utf8');

// Root has no sandbox of its own to start one in.
const browser = await chromium.launch({
  executablePath: '/usr/bin/chromium',
  args: process.getuid() === 0 ? ['--no-sandbox'] : [],
});

let passed = 0;
let failed = 0;

export async function test(name, body) {
  const start = Date.now();
  try {
    await body();
    ++passed;
  } catch (error) {
    ++failed;
    console.log(`FAILED ${name}\n${error.stack}`);
  }
  console.log(`${name}: ${Date.now() - start} ms`);
}

export async function finish() {
  await browser.close();
  console.log(`${passed} passed, ${failed} failed`);
  process.exitCode = failed === 0 ? 0 : 1;
}

/**
 * The page in a browser of its own, closed after `body`. It must neither complain, but for what is
 * `expected`, nor ask for anything but itself. Files are chosen and saved as where a page cannot
 * write to disk.
 */
export async function withPage({ expected = /^$/, ...options }, body) {
  const context = await browser.newContext({ viewport: { width: 1280, height: 800 }, ...options });
  context.setDefaultTimeout(20000);
  const page = await context.newPage();
  const complaints = [];
  page.on('console', (message) => {
    if (!expected.test(message.text())) complaints.push(message.text());
  });
  page.on('pageerror', (error) => complaints.push(error.stack));
  const url = pathToFileURL(join(built, 'kus_rules.html')).href;
  const isOut = (request) => !/^(blob|data):/.test(request.url()) && request.url() !== url;
  context.on('requestfinished', (request) => isOut(request) && complaints.push(request.url()));
  context.on('requestfailed', (request) => {
    if (isOut(request) && request.failure().errorText !== 'csp') complaints.push(request.url());
  });
  // Once somebody listens, the browser shows no dialog of its own.
  page.on('filechooser', () => {});
  await page.addInitScript(() => {
    delete window.showOpenFilePicker;
    delete window.showSaveFilePicker;
    // So that a test can ask the page's own engine about thousands of files.
    const { Worker } = window;
    window.Worker = class extends Worker {
      constructor(...args) {
        super(...args);
        window.engineWorker = this;
      }
    };
  });
  try {
    await page.goto(url);
    await page.locator('#bench .chip.allowed:last-of-type').first().waitFor();
    await body(page);
    if (complaints.length > 0) throw new Error(`the page complains: ${complaints.join('\n')}`);
  } finally {
    await context.close();
  }
}
