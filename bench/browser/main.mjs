// Measures verdo-browser beside the bare browser, and lets four lanes work side by side for a while.
//
// Usage: node bench/browser/main.mjs PROGRAM_DIRECTORY [SECONDS]
import child from 'node:child_process';
import fs from 'node:fs';
import http from 'node:http';
import path from 'node:path';
import { setTimeout as sleep } from 'node:timers/promises';
import { promisify } from 'node:util';

import { Home, residentSize } from './home.mjs';
import { soak } from './soak.mjs';
import { format } from './table.mjs';

const execFile = promisify(child.execFile);

const TIMES = 7;
const PRINTED = 300e6; // bytes
const READ_AT_ONCE = 4e6; // bytes
const LINES = 100_000;
const ANSWER = 60e6; // bytes

const [programs, seconds = '120'] = process.argv.slice(2);
const milliseconds = (value) => `${(value * 1000).toFixed(0)} ms`;
const megabytes = (value) => `${value.toFixed(1)} MB`;
const median = (values) => values.slice().sort((a, b) => a - b)[Math.floor(values.length / 2)];

async function medianOf(measure) {
  const values = [];
  for (let i = 0; i < TIMES; ++i) values.push(await measure(i));
  return median(values);
}

async function benchStart(home, origin) {
  const read = (space) => `const page = await openTaskSpace('${space}')
    await page.goto('${origin}/'); cliLog(await page.title())`;
  const bare = await medianOf((i) => bareBrowser(origin, path.join(home.root, `bare-${i}`)));
  const cold = await medianOf(async () => {
    await home.stop();
    return (await home.run(read('cold'))).seconds;
  });
  const fresh = await medianOf(async (i) => (await home.run(read(`fresh-${i}`))).seconds);
  const warm = await medianOf(async () => (await home.run(read('cold'))).seconds);
  const node = await medianOf(
    async () => (await timed(process.execPath, ['-e', 'console.log(1)'])).seconds,
  );
  const beside = `chromium --dump-dom ${milliseconds(bare)}, node ${milliseconds(node)}`;
  const row = (what, value, target) => ({
    what: `a job reads a page's title: ${what}`,
    measured: milliseconds(value),
    target: milliseconds(target),
    met: value <= target,
    reference: beside,
  });
  return [
    row('no browser yet', cold, 1.2),
    row('a new task space', fresh, 0.25),
    row('its task space', warm, 0.25),
  ];
}

async function bareBrowser(origin, profile) {
  const flags = ['--headless', '--disable-gpu', `--user-data-dir=${profile}`];
  if (process.getuid() === 0) flags.push('--no-sandbox');
  const { stdout, seconds } = await timed('chromium-headless-shell', [
    ...flags,
    '--dump-dom',
    `${origin}/`,
  ]);
  if (!stdout.includes('Bench')) throw new Error('the bare browser did not read the page');
  return seconds;
}

async function timed(program, args) {
  const begin = performance.now();
  const { stdout } = await execFile(program, args, { timeout: 30_000 });
  return { stdout, seconds: (performance.now() - begin) / 1000 };
}

/** What the page library adds to a script: its import by itself, without a browser. */
async function benchLibrary(home) {
  const modules = path.join(fs.realpathSync(`${programs}/verdo-browser`), '../lib');
  const name = fs.readdirSync(modules).find((file) => /^space-pages-.*\.mjs$/.test(file));
  const library = path.join(modules, name);
  const measure = `
    const [begin, before] = [performance.now(), process.memoryUsage.rss()]
    await import(${JSON.stringify(library)})
    const [ms, mb] = [performance.now() - begin, (process.memoryUsage.rss() - before) / 1e6]
    cliLog(JSON.stringify({ ms, mb }))`;
  const seen = [];
  for (let i = 0; i < TIMES; ++i) seen.push(JSON.parse((await home.run(measure)).stdout));
  const ms = median(seen.map((value) => value.ms));
  const mb = median(seen.map((value) => value.mb));
  const what = 'what the page library adds to a script';
  return [
    { what: `${what}: time`, measured: milliseconds(ms / 1000), target: '60 ms', met: ms <= 60 },
    { what: `${what}: memory`, measured: megabytes(mb), target: '5.0 MB', met: mb <= 5 },
  ];
}

async function benchOutput(home) {
  const print = `const line = 'x'.repeat(99_999)
    for (let i = 0; i < ${PRINTED / 1e5}; ++i) cliLog(line)`;
  let received = 0;
  let peak = 0;
  let sinceRest = 0;
  const { child, ended } = home.start(print, {
    onOutput: (stream) =>
      stream.on('data', async (chunk) => {
        received += chunk.length;
        sinceRest += chunk.length;
        peak = Math.max(peak, residentSize(child.pid).peak);
        if (sinceRest < READ_AT_ONCE) return;
        sinceRest = 0;
        stream.pause();
        await sleep(20); // a slow reader is what is measured
        stream.resume();
      }),
  });
  const { code } = await ended;
  if (code !== 0 || received !== PRINTED) throw new Error(`${received} bytes, exit ${code}`);
  const plain = home.start('await new Promise((resolve) => setTimeout(resolve, 300))');
  await sleep(200);
  const rest = residentSize(plain.child.pid).peak;
  await plain.ended;

  const fail = `for (let i = 0; i < ${LINES}; ++i) cliLog('line', i); throw new Error('the end')`;
  const failed = await home.start(fail).ended;
  const lines = failed.stdout.split('\n');
  const complete =
    lines.length === LINES + 1 && lines.every((line, i) => i === LINES || line === `line ${i}`);
  const told = failed.code === 1 && failed.stderr.includes('the end');
  return [
    {
      what: '300 MB to a slow reader: memory of the script',
      measured: megabytes(peak),
      target: '90 MB',
      met: peak <= 90,
      reference: `a script that sleeps ${megabytes(rest)}`,
    },
    {
      what: '100,000 lines and an error',
      measured: complete && told ? 'all there' : `${lines.length - 1} lines, exit ${failed.code}`,
      target: 'all there',
      met: complete && told,
    },
  ];
}

async function benchAnswers(home) {
  await home.run(`await openTaskSpace('large')`);
  const keeper = await home.keeper();
  const before = residentSize(keeper).now;
  for (let i = 0; i < 3; ++i) {
    const ask = `const page = await openTaskSpace('large')
      cliLog((await page.evaluate((n) => 'x'.repeat(n), ${ANSWER})).length)`;
    const { stdout } = await home.run(ask);
    if (Number(stdout) !== ANSWER) throw new Error(`an answer of ${stdout} bytes`);
  }
  const { now, peak } = residentSize(keeper);
  return [
    {
      what: 'three answers of 60 MB: memory of the keeper afterwards',
      measured: megabytes(now),
      target: '250 MB',
      met: now <= 250,
      reference: `before ${megabytes(before)}, at most ${megabytes(peak)}`,
    },
  ];
}

const page = '<title>Bench</title><p>A page.';
const server = http.createServer((_, response) => {
  response.setHeader('Content-Type', 'text/html');
  response.end(page);
});
await new Promise((resolve) => server.listen(0, '127.0.0.1', resolve));
const origin = `http://127.0.0.1:${server.address().port}`;
const rows = [];
const benches = [
  function benchStarts(home) {
    return benchStart(home, origin);
  },
  benchLibrary,
  benchOutput,
  benchAnswers,
  function benchLanes(home) {
    return soak(home, Number(seconds));
  },
];
for (const bench of benches) {
  console.error(`measuring: ${bench.name}`);
  const home = new Home(`${programs}/verdo-browser`);
  try {
    rows.push(...(await bench(home)));
  } finally {
    await home.remove();
  }
}
server.close();
console.log(format(rows));
process.exit(rows.every(({ met }) => met) ? 0 : 3);
