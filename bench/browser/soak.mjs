/** Four lanes that work side by side: whether one ever sees another's, and what stays behind. */

import http from 'node:http';
import { setTimeout as sleep } from 'node:timers/promises';

import { familySize, residentSize } from './home.mjs';

const LANES = 4;
const JOBS_A_SPACE = 10; // then the space is closed, and the next job makes a new one
const GROWTH = 1.25;
const SETTLING = 2_000; // ms: processes of closed pages end

/**
 * @param {import('./home.mjs').Home} home
 * @param {number} seconds
 * @returns {Promise<object[]>} rows
 */
export async function soak(home, seconds) {
  const site = await Site.start();
  const counts = { jobs: 0, mixed: 0, errors: [] };
  const begin = performance.now();
  const elapsed = () => (performance.now() - begin) / 1000;
  const lanes = Array.from({ length: LANES }, (_, lane) => work(home, site, lane, counts));
  // Measured where no space is open, so that the same is there each time.
  const workUntil = async (end) => {
    await Promise.all(lanes.map((lane) => workOn(lane, () => elapsed() >= end)));
    await sleep(SETTLING);
    return { keeper: residentSize(keeper).now, browser: familySize(keeper) };
  };
  await home.run(`await openTaskSpace('first'); await completeTaskSpace('first')`);
  const keeper = await home.keeper();
  const start = await workUntil(0);
  const quarter = await workUntil(seconds / 4);
  const end = await workUntil(seconds);
  site.close();
  for (const error of counts.errors.slice(0, 5)) console.error(`soak: ${error}`);
  const rate = counts.jobs / elapsed();
  return [
    {
      what: `four lanes for ${seconds} s: jobs`,
      measured: `${counts.jobs}`,
      target: '-',
      met: true,
      reference: `${rate.toFixed(1)} a second`,
    },
    countRow('errors', counts.errors.length),
    countRow('cookies or pages of another lane', site.mixed + counts.mixed),
    memoryRow('keeper', start.keeper, quarter.keeper, end.keeper),
    memoryRow('Chromium', start.browser, quarter.browser, end.browser),
  ];
}

function countRow(what, count) {
  return { what: `four lanes: ${what}`, measured: `${count}`, target: '0', met: count === 0 };
}

function memoryRow(what, start, quarter, end) {
  const mb = (value) => `${value.toFixed(1)} MB`;
  return {
    what: `four lanes: memory of ${what} at the end`,
    measured: mb(end),
    target: mb(quarter * GROWTH),
    met: end <= quarter * GROWTH,
    reference: `at the start ${mb(start)}, after a quarter ${mb(quarter)}`,
  };
}

/** Goes on until it is time and the lane's space has been closed. */
async function workOn(lane, isTime) {
  for (;;) {
    const { value: hasNoSpace } = await lane.next();
    if (hasNoSpace && isTime()) return;
  }
}

/** The jobs of a lane, one after the other; tells behind each whether its space was closed. */
async function* work(home, site, lane, counts) {
  for (let number = 0; ; ++number) {
    const space = `lane-${lane}`;
    const last = number % JOBS_A_SPACE === JOBS_A_SPACE - 1;
    const script = `
      const page = await openTaskSpace('${space}')
      await page.goto('${site.origin}/${lane}/${number}')
      await page.type('input', 'typed in ${lane}')
      cliLog(JSON.stringify(await page.evaluate(() => {
        const { cookie, title } = document
        const before = localStorage.getItem('lane')
        localStorage.setItem('lane', title.split(' ')[1])
        return { cookie, title, before, typed: document.querySelector('input').value }
      })))
      ${last ? `await completeTaskSpace('${space}', { keep: false })` : ''}`;
    const { code, stdout, stderr } = await home.start(script).ended;
    counts.jobs += 1;
    if (code === 0) {
      const expected = {
        cookie: `lane=${lane}`,
        title: `Lane ${lane} ${number}`,
        before: number % JOBS_A_SPACE === 0 ? null : `${lane}`,
        typed: `typed in ${lane}`,
      };
      if (stdout.trim() !== JSON.stringify(expected)) {
        counts.mixed += 1;
        counts.errors.push(`lane ${lane}, job ${number}: ${stdout}`);
      }
    } else {
      counts.errors.push(`lane ${lane}, job ${number}: exit ${code}: ${stderr}`);
    }
    yield last;
  }
}

/** Knows each lane by a cookie and counts requests that have another's. */
class Site {
  mixed = 0;
  #server;

  static async start() {
    const site = new Site();
    site.#server = http.createServer((request, response) => site.#answer(request, response));
    await new Promise((resolve) => site.#server.listen(0, '127.0.0.1', resolve));
    site.origin = `http://127.0.0.1:${site.#server.address().port}`;
    return site;
  }

  close() {
    this.#server.closeAllConnections();
    this.#server.close();
  }

  #answer({ url, headers }, response) {
    const [, lane, number] = url.split('/');
    if (number === undefined) {
      response.writeHead(404).end(); // its icon
      return;
    }
    const expected = number % JOBS_A_SPACE === 0 ? undefined : `lane=${lane}`;
    if (headers.cookie !== expected) this.mixed += 1;
    response.writeHead(200, { 'Content-Type': 'text/html', 'Set-Cookie': `lane=${lane}` });
    response.end(`<title>Lane ${lane} ${number}</title><input>${'<p>text'.repeat(2000)}`);
  }
}
