/** Browser jobs from end to end: service, driver, verdo-browser, Chromium, sites on loopback. */

import assert from 'node:assert/strict';
import test from 'node:test';

import { JobsRig } from './jobs-rig.mjs';
import { serve, waitFor } from './sandbox.mjs';

const html = { 'Content-Type': 'text/html; charset=utf-8' };

/** A site that knows who is logged in by a cookie. */
const SHOP = {
  '/': '<form method=post action=/login><input name=user><button>Log in</button></form>',
  '/login': (request, response) => {
    let form = '';
    request.on('data', (text) => (form += text));
    request.on('end', () => {
      response.writeHead(303, { Location: '/who', 'Set-Cookie': `${form}; HttpOnly` });
      response.end();
    });
  },
  '/who': (request, response) => {
    response.writeHead(200, html);
    response.end(`<body>${request.headers.cookie ?? 'nobody'}</body>`);
  },
};

async function shareLogins(t) {
  const rig = await JobsRig.start(t);
  const origin = await serve(t, SHOP);
  await rig.startDriver();
  const job = (space, steps) =>
    rig.lines(
      `const page = await openTaskSpace('${space}')
       ${steps}
       cliLog(await page.text())`,
      { task_space: space },
    );
  const logIn = (user) =>
    job(
      `u1-${user}`,
      `await page.goto('${origin}/')
       await page.type('[name=user]', '${user}')
       await Promise.all([page.waitForNavigation(), page.click('button')])`,
    );
  const who = (user) => job(`u1-${user}`, `await page.goto('${origin}/who')`);
  const kill = async () => {
    const script = `await openTaskSpace('u1-eve'); process.kill(process.pid, 'SIGKILL')`;
    return (await (await rig.queue(script)).done()).exit; // its job names no space to be closed
  };
  assert.deepEqual(await Promise.all([logIn('ann'), logIn('bob')]), [['user=ann'], ['user=bob']]);
  assert.equal(rig.sandbox.keepers().length, 1);
  const seen = await Promise.all([who('ann'), who('bob'), who('eve'), kill()]);
  assert.deepEqual(seen, [['user=ann'], ['user=bob'], ['nobody'], -9]);
  const spaces = `cliLog((await listTaskSpaces()).map(({ name }) => name).sort().join())`;
  assert.equal(await rig.sandbox.output(spaces), 'u1-ann,u1-bob,u1-eve\n');
}

async function closeSpaces(t) {
  const rig = await JobsRig.start(t);
  const origin = await serve(t, {});
  const visit = (space) => `const page = await openTaskSpace('${space}')
    await page.goto('${origin}/${space}'); cliLog('there')\n`;
  const has = async (...spaces) => {
    const { pages, contexts } = await rig.chromium();
    const expected = spaces.map((space) => `${origin}/${space}`).sort();
    return contexts === spaces.length && pages.sort().join() === expected.join();
  };
  const left = (...spaces) =>
    waitFor(`Chromium to have ${spaces}`, () => has(...spaces)).catch(async (error) => {
      const seen = JSON.stringify(await rig.chromium());
      throw new Error(`${error.message}; it has ${seen}\n${rig.log}`, { cause: error });
    });

  for (const space of ['mine', 'u1-old']) await rig.sandbox.output(visit(space));
  assert.ok(await has('mine', 'u1-old'));
  await rig.startDriver();
  await left('mine');

  const inSpace = (space, more = '') => rig.queue(visit(space) + more, { task_space: space });
  const [kept, running] = await Promise.all([
    inSpace('u1-kept'),
    inSpace('u1-running', `await page.evaluate('new Promise(() => {})')`),
  ]);
  assert.equal((await kept.done()).exit, 0);
  await running.printed();
  await left('mine', 'u1-kept', 'u1-running');
  await rig.stopDriver();
  assert.equal((await running.done()).exit, -15);
  await left('mine');
}

/** Side by side: a driver looks at a job every 3 s, so each of these mostly waits. */
test('jobs of a driver', { concurrency: true }, async (t) => {
  const tests = {
    'share a login of their task space, and none of another': shareLogins,
    'leave nothing in Chromium of what the driver closes': closeSpaces,
  };
  await Promise.all(Object.entries(tests).map(([name, run]) => t.test(name, run)));
});
