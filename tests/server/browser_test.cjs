// The browser view driven through Debian's chromium by playwright-core, as a user works
// it: first rows, sorting, the "Event ID" filter against `view --count`, the details
// tabs, a bookmark, and the CSV export against `view -f csv`. A screenshot of each step
// is kept in the output folder.
//
//   node browser_test.cjs QUORVEX SAMPLES_DIR OUTDIR [RECORDS]
// It opens a real Security log from the samples when they are present, else the demo log.
'use strict';
const path = require('path');
const fs = require('fs');
const { spawn, execFileSync } = require('child_process');
const { chromium } = require(path.join(__dirname, '../../src/server/web/node_modules/playwright-core'));

const [quorvex, samples, outDir, records] = process.argv.slice(2);
const browserPath = process.env.QVX_CHROMIUM || '/usr/bin/chromium';
if (!fs.existsSync(browserPath)) {
  console.log(`SKIP: no browser at ${browserPath} (install chromium)`);
  process.exit(77);
}
fs.mkdirSync(outDir, { recursive: true });
let log = path.join(samples, 'evtx/velocidex-evtx/Security.evtx');
if (!fs.existsSync(log)) {
  log = path.join(outDir, 'demo.evtx');
  execFileSync(quorvex, ['demo', '--no-dump', '--output', log]);
}
console.log(`log: ${log}`);
// The server holds its store exclusively; the command line reads the same log loaded
// into a second store.
const store = path.join(outDir, 'browser.db');
const reference = path.join(outDir, 'reference.db');
fs.rmSync(store, { force: true });

let failures = 0;
function check(ok, what, detail) {
  console.log(`${ok ? 'ok' : 'FAIL'}: ${what}${ok ? '' : ` (${detail})`}`);
  if (!ok) failures++;
}
const cli = (...args) => execFileSync(quorvex, args, { encoding: 'utf8' });

// A large log in its own folder, opened from the page (the folder is a --root).
const bigRecords = Number(records || 1000000);
const bigFolder = path.join(outDir, 'more');
fs.mkdirSync(bigFolder, { recursive: true });
const big = path.join(bigFolder, `big-${bigRecords}.evtx`);

(async () => {
  if (!fs.existsSync(big)) cli('demo', '--no-dump', '--records', String(bigRecords), '--output', big);
  cli('open', log, '-s', reference, '-q');
  const server = spawn(quorvex, ['serve', log, '--store', store, '--no-browser', '-q', '--root', bigFolder], { stdio: ['ignore', 'pipe', 'inherit'] });
  const url = await new Promise((resolve, reject) => {
    let text = '';
    server.stdout.on('data', (d) => {
      text += d;
      const m = /Quorvex is serving (\S+)/.exec(text);
      if (m) resolve(m[1]);
    });
    server.on('exit', (code) => reject(new Error(`serve exited with ${code}`)));
    setTimeout(() => reject(new Error('serve printed no address in 120 s')), 120000);
  });
  const browser = await chromium.launch({ executablePath: browserPath, args: ['--disable-dev-shm-usage', '--no-sandbox'] });
  try {
    const context = await browser.newContext({ acceptDownloads: true, viewport: { width: 1400, height: 900 } });
    const page = await context.newPage();
    const errors = [];
    page.on('pageerror', (e) => errors.push(String(e)));
    const shot = (name) => page.screenshot({ path: path.join(outDir, `${name}.png`) });
    const grid = page.getByRole('grid');
    const status = page.getByRole('status');
    // Polls from here: the page's CSP forbids evaluating text in it, as it should.
    const until = async (what, test) => {
      for (let i = 0; i < 300; i++) {
        if (await test()) return;
        await page.waitForTimeout(100);
      }
      throw new Error(`timed out waiting for ${what}`);
    };
    const statusStarts = (text) => until(`status "${text}"`, async () => (await status.innerText()).startsWith(text));
    const firstRowCells = () => grid.getByRole('row').nth(1).getByRole('gridcell').allInnerTexts();

    await page.goto(url);
    await until('the first rows', async () => /in the store/.test(await status.innerText()));
    const before = Number(/· ([\d,]+) in the store/.exec(await status.innerText())[1].replace(/,/g, ''));
    check(!page.url().includes('token='), 'the token leaves the address bar', page.url());
    await grid.getByRole('gridcell').nth(3).waitFor();
    await shot('1-first-rows');

    // The first rows are the log's newest events, as 'events' lists them.
    const expected = cli('events', log, '-f', 'jsonl', '-n', '5', '--tz', 'local').trim().split('\n').map((l) => JSON.parse(l));
    const shown = [];
    for (let i = 1; i <= 5; i++) shown.push(await grid.getByRole('row').nth(i).getByRole('gridcell').allInnerTexts());
    check(shown.every((cells, i) => cells[3] === String(expected[i].event_id) && cells[8] === String(expected[i].record)),
      'the first rows equal the first events', JSON.stringify(shown.map((c) => [c[3], c[8]])));

    // Sorting by Event ID.
    await page.getByRole('columnheader', { name: 'Event ID' }).getByRole('button').click();
    await until('the sort', async () => (await grid.getAttribute('aria-busy')) === 'false');
    const lowest = cli('view', reference, '--sort', 'EventID', '-n', '1', '-f', 'jsonl');
    check((await firstRowCells())[3] === String(JSON.parse(lowest).event_id), 'sorted by Event ID', (await firstRowCells())[3]);
    await shot('2-sorted');

    // The Event ID filter and the status count.
    await page.getByLabel('Event ID', { exact: true }).fill('4624');
    await page.getByRole('button', { name: 'Apply' }).click();
    const count = cli('view', reference, '--id', '4624', '--count').trim();
    await statusStarts(`${Number(count).toLocaleString('en-US')} events`);
    check((await status.innerText()).includes(`${Number(count).toLocaleString('en-US')} events`), 'the status bar counts the filtered events', await status.innerText());
    await shot('3-filtered');

    // A filter the server refuses is shown as refused; the rows and their label stay.
    const filterError = page.locator('#filter-pane [role=alert]');
    const statusBefore = await status.innerText();
    await page.getByLabel('Description text').fill('(');
    await page.getByLabel('Regular expression').check();
    await page.getByRole('button', { name: 'Apply' }).click();
    await until('the pattern refused', async () => /not a regular expression that compiles/.test(await filterError.innerText()));
    check((await status.innerText()) === statusBefore, 'a refused pattern leaves the view as it was', await status.innerText());
    await page.getByLabel('Regular expression').uncheck();
    await page.getByLabel('Description text').fill('');
    await page.getByLabel('Last days').fill('abc');
    await page.getByRole('button', { name: 'Apply' }).click();
    await until('the count refused', async () => /Last days: "abc" is not a whole number/.test(await filterError.innerText()));
    await page.getByLabel('Last days').fill('');
    await shot('3b-refused');

    // More tabs than a browser's six connections to one server: each shows its rows (no
    // tab holds a connection open while it is idle).
    const tabs = [];
    for (let i = 0; i < 7; i++) {
      const tab = await context.newPage();
      tabs.push(tab);
      await tab.goto(url);
      await tab.getByRole('grid').getByRole('gridcell').nth(3).waitFor({ timeout: 20000 });
    }
    check(true, 'seven more tabs show their rows', '');
    for (const tab of tabs) await tab.close();

    // Details of the selected row.
    await grid.getByRole('row').nth(1).click();
    await page.getByRole('tab', { name: 'Description' }).click();
    const panel = page.getByRole('tabpanel');
    await panel.locator('pre').waitFor();
    check((await panel.innerText()).length > 0, 'the Description tab shows text', '');
    await page.getByRole('tab', { name: 'Data' }).click();
    await panel.locator('table, :text("no data")').first().waitFor();
    await shot('4-data');
    await page.getByRole('tab', { name: 'XML' }).click();
    check((await panel.innerText()).includes('<EventID>4624</EventID>'), 'the XML tab shows the event', (await panel.innerText()).slice(0, 80));
    await shot('5-xml');

    // A bookmark, then only bookmarked rows.
    await grid.focus();
    await page.keyboard.press('Space');
    await grid.getByRole('gridcell', { name: 'Bookmarked' }).first().waitFor();
    await page.getByLabel('Bookmarked only').check();
    await statusStarts('1 event in view');
    check(true, 'one bookmarked row in view', '');
    await shot('6-bookmarked');

    // Another time zone: the same row shown nine hours later in Tokyo than in UTC.
    const timeOf = async () => (await grid.getByRole('row').nth(1).getByRole('gridcell').allInnerTexts())[1];
    await page.getByLabel('Time zone').selectOption('UTC');
    await until('UTC times', async () => /time zone: UTC/.test(await status.innerText()));
    const utc = await timeOf();
    await page.getByLabel('Time zone').selectOption('Tokyo Standard Time');
    await until('Tokyo times', async () => (await timeOf()) !== utc);
    const hours = (Date.parse(`${(await timeOf()).replace(' ', 'T')}Z`) - Date.parse(`${utc.replace(' ', 'T')}Z`)) / 3600000;
    check(hours === 9, 'times follow the chosen time zone', `${utc} then ${await timeOf()}`);
    await shot('7-tokyo');
    const asLoaded = await page.locator('#time-zone option', { hasText: 'as stored' }).first().getAttribute('value');
    await page.getByLabel('Time zone').selectOption(asLoaded);
    await until('the zone as loaded', async () => !/Tokyo/.test(await status.innerText()));

    // Export of the rows in view (the bookmark taken off again, as the reference has none).
    await page.getByLabel('Bookmarked only').uncheck();
    await statusStarts(`${Number(count).toLocaleString('en-US')} events`);
    await grid.getByRole('row').nth(1).click();
    await grid.focus();
    await page.keyboard.press('Space');
    await grid.getByRole('gridcell', { name: 'Bookmarked' }).first().waitFor({ state: 'detached' });
    const [download] = await Promise.all([page.waitForEvent('download'), page.getByRole('button', { name: 'Export' }).click()]);
    const exported = fs.readFileSync(await download.path(), 'utf8');
    const viewCsv = cli('view', reference, '--id', '4624', '--sort', 'EventID', '-f', 'csv');
    check(exported === viewCsv, 'the CSV export equals view -f csv', `${exported.length} vs ${viewCsv.length} bytes`);

    // Opening a large log from the page: progress streams, and Cancel stops the load and
    // keeps what was loaded.
    await page.getByRole('button', { name: 'Open logs…' }).click();
    const dialog = page.getByRole('dialog', { name: 'Open logs' });
    await dialog.getByRole('button', { name: /📁/ }).first().click(); // the first root folder, once listed
    await dialog.getByLabel(new RegExp(`^ big-${bigRecords}\\.evtx`)).check();
    await dialog.getByRole('button', { name: 'Load selected' }).click();
    await page.getByRole('progressbar', { name: 'Loading' }).waitFor();
    await until('progress', async () => /events loaded/.test(await page.locator('#load-bar span').innerText()));
    await shot('8-loading');
    await page.getByRole('button', { name: 'Cancel' }).click();
    await until('the cancelled load', async () => (await page.locator('#load-bar span').innerText()) === 'Load cancelled');
    await until('the view after the load', async () => /in the store/.test(await status.innerText()));
    const stored = Number(/· ([\d,]+) in the store/.exec(await status.innerText())[1].replace(/,/g, ''));
    check(stored > before && stored < before + bigRecords, 'Cancel keeps part of the log', `${before} then ${stored}`);
    await shot('9-cancelled');
    check(errors.length === 0, 'no script errors', errors.join('; '));
  } finally {
    await browser.close();
    server.kill('SIGINT');
  }
  process.exit(failures ? 1 : 0);
})().catch((e) => {
  console.error(`FAIL: ${e.stack || e}`);
  process.exit(1);
});
