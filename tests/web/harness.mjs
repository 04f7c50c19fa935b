// SPDX-License-Identifier: Apache-2.0
import { readFileSync } from 'node:fs';
import { createRequire } from 'node:module';
import { join, resolve } from 'node:path';
import { after, test } from 'node:test';
import { pathToFileURL } from 'node:url';

export const [built, kusctl] = process.argv.slice(2, 4).map((path) => resolve(path));
const require = createRequire(join(built, 'package.json'));
const { chromium } = require('playwright-core');

export const axe = readFileSync(require.resolve('axe-core'), 'utf8');

// Root has no sandbox of its own to start one in.
const args = process.getuid() === 0 ? ['--no-sandbox'] : [];
const browser = await chromium.launch({ executablePath: '/usr/bin/chromium', args });
after(() => browser.close());

/**
 * A test of the page in a browser of its own. It must neither complain, but for what is `expected`,
 * nor ask for anything but itself. Files are chosen and saved as where a page cannot write to disk,
 * and its questions are answered with yes.
 */
export const testPage = (name, body, options = {}) => test(name, () => withPage(body, options));

async function withPage(body, { expected = /^$/, ...options }) {
  const context = await browser.newContext({ viewport: { width: 1280, height: 800 }, ...options });
  context.setDefaultTimeout(20000);
  const page = await context.newPage();
  const complaints = [];
  page.on('console', (message) => {
    if (!expected.test(message.text())) complaints.push(message.text());
  });
  page.on('pageerror', (error) => complaints.push(error.stack));
  const url = pathToFileURL(join(built, 'kus_rules.html')).href;
  const complain = (request) => {
    const isItself = /^(blob|data):/.test(request.url()) || request.url() === url;
    if (!isItself && request.failure()?.errorText !== 'csp') complaints.push(request.url());
  };
  context.on('requestfinished', complain);
  context.on('requestfailed', complain);
  // Once somebody listens, the browser shows no dialog of its own.
  page.on('filechooser', () => {});
  page.on('dialog', (dialog) => dialog.accept());
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
