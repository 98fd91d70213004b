// The console in Debian's Chromium, driven by puppeteer-core (which never downloads a browser):
// the table, a live event, a task run from the page, a wrong password, and a screenshot of
// every page. Run by tests/console/browser_test.py with the fleet it started.
//
// node console.test.mjs URL AMBRANT RECORD_FILE SCREENSHOT_DIR AGENT...

import { execFile } from 'node:child_process';
import { mkdtempSync, mkdirSync, readFileSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';
import puppeteer from 'puppeteer-core';

const [url, ambrant, recordFile, shots, ...agents] = process.argv.slice(2);
mkdirSync(shots, { recursive: true });
let failed = 0;

function check(name, condition, detail = '') {
  console.log(`${condition ? 'ok     ' : 'FAILED '} ${name}${condition ? '' : `: ${detail}`}`);
  if (!condition) failed += 1;
}

function readOr(path, fallback) {
  try {
    return readFileSync(path, 'utf8');
  } catch {
    return fallback;
  }
}

const browser = await puppeteer.launch({
  executablePath: process.env.KESTRIN_CHROMIUM || '/usr/bin/chromium',
  args: ['--no-sandbox', '--headless=new', '--disable-gpu'],
});
try {
  const page = await browser.newPage();
  await page.setViewport({ width: 1280, height: 900 });
  const pageErrors = [];
  page.on('pageerror', (error) => pageErrors.push(error.message));
  await page.goto(url);

  await page.waitForFunction((n) => document.querySelectorAll('#agent-rows tr').length === n, { timeout: 20000 }, agents.length);
  const listed = await page.$$eval('#agent-rows tr', (rows) => rows.map((row) => row.dataset.agent));
  check('the table lists every agent', agents.every((agent) => listed.includes(agent)), listed);
  await page.waitForFunction(() => [...document.querySelectorAll('#agent-rows tr')].every((row) => row.textContent.includes('reachable')), { timeout: 20000 });
  await page.screenshot({ path: join(shots, 'workstations.png'), fullPage: true });

  // The table sorts and filters from the keyboard too.
  await page.focus('#filter');
  await page.keyboard.type(agents[1]);
  const filtered = await page.$$eval('#agent-rows tr', (rows) => rows.length);
  check('the filter keeps the matching workstation', filtered === 1, filtered);
  await page.click('#filter', { clickCount: 3 });
  await page.keyboard.press('Backspace');

  // An event posted on one agent appears on the page within a second.
  const console = mkdtempSync(join(tmpdir(), 'ambrant-'));
  const posted = Date.now();
  await new Promise((resolve) => {
    execFile(ambrant, ['call', agents[1], 'performErrorCallbackSelector:withObject:withObject:',
      '"addStringToQueue:hostname:"', '"render node full"', '"studio."'],
    { env: { ...process.env, XDG_CONFIG_HOME: console } }, resolve);
  });
  const answered = Date.now();
  await page.waitForFunction(() => document.querySelector('#event-list').textContent.includes('render node full'), { timeout: 5000 });
  const seen = Date.now() - answered;
  check('an event posted on one agent appears within a second', seen < 1000, `${seen} ms (${answered - posted} ms to post)`);

  // One workstation, every page.
  await page.click(`#agent-rows tr[data-agent="${agents[0]}"] button.link`);
  await page.waitForSelector('[role="tab"]');
  const tabs = await page.$$eval('[role="tab"]', (buttons) => buttons.map((b) => b.textContent));
  for (const [index, title] of tabs.entries()) {
    await page.evaluate((i) => document.querySelectorAll('[role="tab"]')[i].click(), index);
    await page.waitForFunction(() => !document.querySelector('#tab').textContent.startsWith('Asking the agent'), { timeout: 15000 });
    const text = await page.$eval('#tab', (tab) => tab.textContent);
    const refused = await page.$('#tab p.bad');
    check(`the ${title} page shows what the agent answered`, text.length > 0 && !refused, text.slice(0, 80));
    await page.screenshot({ path: join(shots, `workstation-${title.toLowerCase().replace(/[^a-z]+/g, '-')}.png`), fullPage: true });
  }

  // A task run from the page reaches the maker's tool with its arguments.
  await page.evaluate(() => [...document.querySelectorAll('[role="tab"]')].find((b) => b.textContent === 'Tasks').click());
  await page.waitForSelector('#tab ul.tasks button');
  await page.evaluate(() => [...document.querySelectorAll('#tab button')].find((b) => b.textContent === 'Run clean').click());
  const started = Date.now();
  while (!readOr(recordFile, '').includes('--clean --all') && Date.now() - started < 10000) {
    await new Promise((resolve) => setTimeout(resolve, 100));
  }
  check('a task run from the page reaches the tool with its arguments', readOr(recordFile, '').includes('--clean --all'), readOr(recordFile, '(nothing)'));

  // The administrator's credentials are asked for once; a wrong password says so in the agents' words.
  await page.evaluate(() => [...document.querySelectorAll('#tab button')].find((b) => b.textContent === 'Run clean as administrator').click());
  await page.waitForSelector('dialog#credentials[open]');
  await page.screenshot({ path: join(shots, 'credentials.png'), fullPage: true });
  await page.type('dialog#credentials input[name="user"]', 'root');
  await page.type('dialog#credentials input[name="password"]', 'certainly-wrong');
  await page.keyboard.press('Enter');
  const refused = await page
    .waitForFunction(() => document.body.textContent.includes('Incorrect username or password.'), { timeout: 20000 })
    .then(() => true, () => false);
  check('a wrong password shows the 1006 text', refused, await page.$eval('#event-list', (list) => list.textContent.slice(0, 200)));
  await page.screenshot({ path: join(shots, 'wrong-password.png'), fullPage: true });

  check('the page ran without script errors', pageErrors.length === 0, pageErrors.join('; '));
} finally {
  await browser.close();
}
console.log(failed ? `${failed} failed` : 'all passed');
process.exit(failed ? 1 : 0);
