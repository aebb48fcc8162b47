/** Browser jobs from end to end: service, driver, verdo-browser, Chromium, sites on loopback. */

import assert from 'node:assert/strict';
import crypto from 'node:crypto';
import fs from 'node:fs';
import path from 'node:path';
import test from 'node:test';

import { JobsRig } from './jobs-rig.mjs';
import { PROGRAM, serve, waitFor } from './sandbox.mjs';

/** Where pictures of a run are kept, for a person to look at. */
const PICTURES = path.resolve(path.dirname(PROGRAM), '../Testing/browser-jobs');

const sha256 = (bytes) => crypto.createHash('sha256').update(bytes).digest('hex');
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
  await rig.startDriver('--idle-close', '2', '--reap-interval', '1');
  await left('mine');

  const inSpace = (space, more = '') => rig.queue(visit(space) + more, { task_space: space });
  const [fails, endless, idle] = await Promise.all([
    inSpace('u1-fails', `await page.click('#none')`),
    inSpace('u1-endless', `await page.evaluate('new Promise(() => {})')`),
    inSpace('u1-idle'),
  ]);
  await Promise.all([endless.printed(), idle.printed()]);
  await left('mine', 'u1-endless', 'u1-idle');
  assert.equal((await fails.done()).exit, 1);
  assert.equal((await idle.done()).exit, 0);
  await left('mine', 'u1-endless');
  await endless.cancel();
  assert.equal((await endless.done()).exit, -15);
  await left('mine');
  const causes = [
    `closed 1 leftover task space\\(s\\): u1-old`,
    `space 'u1-fails': close -> exit 0`,
    `idle reaper closed 1 space\\(s\\): u1-idle`,
    `space 'u1-endless': close -> exit 0`,
  ];
  for (const cause of causes) {
    await waitFor(`the log to have: ${cause}`, () => new RegExp(cause).test(rig.log));
  }
  await rig.stopDriver();

  await rig.startDriver();
  const [kept, running] = await Promise.all([
    inSpace('u1-kept'),
    inSpace('u1-running', `await page.evaluate('new Promise(() => {})')`),
  ]);
  assert.equal((await kept.done()).exit, 0);
  await running.printed();
  await left('mine', 'u1-kept', 'u1-running');
  await rig.stopDriver();
  await left('mine');
}

async function workInPages(t) {
  const rig = await JobsRig.start(t);
  const staged = crypto.randomBytes(200_000);
  const offered = crypto.randomBytes(300_000);
  let received = Buffer.alloc(0);
  const other = await serve(t, {
    '/pay': `<button onclick="parent.postMessage('paid ' + this.dataset.sum, '*')" data-sum=7>
      Pay</button>`,
  });
  const origin = await serve(t, {
    '/upload': `<form method=post enctype=multipart/form-data action=/take>
      <input type=file name=photo><button>Send</button></form>`,
    '/take': (request, response) => {
      const chunks = [];
      request.on('data', (chunk) => chunks.push(chunk));
      request.on('end', () => {
        received = Buffer.concat(chunks);
        response.end('<title>taken</title>');
      });
    },
    '/download': '<a href=/file>Get it</a>',
    '/file': (_, response) => {
      response.writeHead(200, { 'Content-Disposition': 'attachment; filename="report.bin"' });
      response.write(offered.subarray(0, 1000));
      setTimeout(() => response.end(offered.subarray(1000)), 300); // not all at once
    },
    '/shop': `<iframe src="${other.replace('127.0.0.1', 'localhost')}/pay"></iframe>
      <script>onmessage = ({ data, origin }) => document.title = data + ' at ' + origin</script>
      <button id=sure onclick="document.title = confirm('Sure?') + ',' + prompt('Name?')">
        Sure</button><a href=/terms target=_blank>Terms</a>`,
    '/terms': '<title>Terms</title><p>Be kind.',
    '/picture': `<meta charset=utf-8><body style="margin: 0; background: linear-gradient(90deg, #fff, #28c)">
      <h1 style="font: 40px sans-serif; padding: 40px">Grüße aus dem Browser ✓</h1>`,
  });
  fs.rmSync(PICTURES, { recursive: true, force: true });
  fs.mkdirSync(PICTURES, { recursive: true });
  const picture = path.join(PICTURES, 'job.png');
  await rig.startDriver();

  const [upload, download, shop, shot] = await Promise.all([
    rig.lines(
      `const page = await openTaskSpace('u1-up')
       await page.goto('${origin}/upload')
       await (await page.$('[type=file]')).uploadFile(__VERDO_FILE__my photo.jpg__)
       await Promise.all([page.waitForNavigation(), page.click('button')])
       cliLog(await page.title())`,
      { files: [{ name: 'my photo.jpg', content_base64: staged.toString('base64') }] },
    ),
    rig.lines(
      `const page = await openTaskSpace('u1-down')
       await page.goto('${origin}/download')
       const { path, name } = await page.waitForDownload(() => page.click('a'))
       const bytes = require('node:fs').readFileSync(path)
       cliLog(name, require('node:crypto').createHash('sha256').update(bytes).digest('hex'))`,
    ),
    rig.lines(
      `const page = await openTaskSpace('u1-shop')
       await page.goto('${origin}/shop')
       const frame = await (await page.waitForSelector('iframe')).contentFrame()
       await frame.click('button')
       await page.waitForFunction(() => document.title)
       cliLog(await page.title())
       const terms = await page.waitForPopup(() => page.click('a'))
       await terms.waitForSelector('p')
       cliLog(await terms.title(), await terms.text())
       await terms.close()
       page.on('dialog', (dialog) => dialog.accept(dialog.type() === 'prompt' ? 'Ann' : undefined))
       await page.click('#sure')
       cliLog(await page.title())`,
    ),
    rig.lines(
      `const page = await openTaskSpace('u1-shot', { viewport: { width: 640, height: 200 } })
       await page.goto('${origin}/picture')
       await page.screenshot({ path: ${JSON.stringify(picture)} })
       cliLog(await page.evaluate(() => innerWidth))`,
    ),
  ]);
  assert.deepEqual(upload, ['taken']);
  const begin = received.indexOf('\r\n\r\n') + 4;
  assert.equal(sha256(received.subarray(begin, begin + staged.length)), sha256(staged));
  assert.match(received.toString('latin1', begin + staged.length), /^\r\n-+\w+--\r\n$/);
  assert.deepEqual(download, [`report.bin ${sha256(offered)}`]);
  const payer = other.replace('127.0.0.1', 'localhost');
  assert.deepEqual(shop, [`paid 7 at ${payer}`, 'Terms Be kind.', 'true,Ann']);
  assert.deepEqual(shot, ['640']);
  const png = fs.readFileSync(picture);
  const size = [png.toString('latin1', 1, 4), png.readUInt32BE(16), png.readUInt32BE(20)];
  assert.deepEqual(size, ['PNG', 640, 200]);
}

/** Side by side: a driver looks at a job every 3 s, so each of these mostly waits. */
test('jobs of a driver', { concurrency: true }, async (t) => {
  const tests = {
    'share a login of their task space, and none of another': shareLogins,
    'leave nothing in Chromium of what the driver closes': closeSpaces,
    'reach files, frames, pop-ups and dialogs, and take pictures': workInPages,
  };
  await Promise.all(Object.entries(tests).map(([name, run]) => t.test(name, run)));
});
