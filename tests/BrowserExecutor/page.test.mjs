/** Pages and task spaces, in a real browser. */

import assert from 'node:assert/strict';
import fs from 'node:fs';
import path from 'node:path';
import test from 'node:test';

import { Sandbox, serve, waitFor } from './sandbox.mjs';

const HOME = '<title>Home</title><p>seen</p><p style="display: none">hidden</p>';

test('a page is read, run and pictured', async (t) => {
  const sandbox = new Sandbox(t);
  const origin = await serve(t, { '/': HOME });
  const stdout = await sandbox.output(`
    const page = await openTaskSpace('read')
    await page.goto('${origin}/#top')
    cliLog([await page.title(), await page.text(), await page.url()])
    await page.goto('${origin}/#end')
    cliLog([await page.evaluate('location.hash'), await page.evaluate('1 / 0'),
      await page.evaluate(async (a, b) => a.list.length + b, { list: [1, 2] }, 'x'),
      await page.evaluate((o) => Object.keys(o), JSON.parse('{"__proto__": 1}'))])
    cliLog(await page.screenshot({ path: 'shot.png' }))
    cliLog((await page.screenshot()).subarray(1, 4).toString())`);
  assert.deepEqual(stdout.split('\n'), [
    `["Home","seen","${origin}/#top"]`,
    '["#end",null,"2x",["__proto__"]]',
    path.join(sandbox.root, 'shot.png'),
    'PNG',
    '',
  ]);
  const png = fs.readFileSync(path.join(sandbox.root, 'shot.png'));
  assert.equal(png.subarray(1, 4).toString(), 'PNG');
});

test('failures of a page reject with their reason at the line of the script', async (t) => {
  const sandbox = new Sandbox(t);
  const origin = await serve(t, { '/': HOME, '/silent': () => {} });
  const stdout = await sandbox.output(`
    const page = await openTaskSpace('bad')
    const attempt = (action) => action().catch((error) => cliLog(error.message))
    await attempt(() => page.goto('no url'))
    await attempt(() => page.goto('http://nowhere.invalid/'))
    await attempt(() => page.goto('${origin}/silent', { timeout: 200 }))
    await page.goto('${origin}/')
    await attempt(() => page.evaluate(() => { throw new TypeError('boom') }))
    await attempt(() => page.evaluate('Promise.reject({ code: 5 })'))
    await attempt(() => page.evaluate((n) => n, 5n))
    cliLog(await page.title())`);
  const lines = stdout.split('\n');
  const expected = [
    /^goto: 'no url' is not a URL/,
    /^goto http:\/\/nowhere.invalid\/: net::ERR_/,
    /silent: not loaded within 200 ms/,
    /^TypeError: boom$/,
    /^page threw Object \{code: 5\}$/,
    /argument 1: .*BigInt/,
    /^Home$/,
  ];
  expected.forEach((pattern, i) => assert.match(lines[i], pattern));

  const { code, stderr } = await sandbox.run(
    `const page = await openTaskSpace('bad')\n\nawait page.evaluate('nothing.x')`,
  );
  assert.match(stderr, /^verdo-browser: script line 3: Error: ReferenceError: nothing is not/);
  assert.equal(code, 1);
});

test('a task space outlives its script, with cookies that no other space sees', async (t) => {
  const sandbox = new Sandbox(t);
  const origin = await serve(t, {
    '/login': (_, response) => {
      response.writeHead(200, { 'Set-Cookie': 'user=ann', 'Content-Type': 'text/html' });
      response.end('<title>in</title>');
    },
    '/who': (request, response) => response.end(request.headers.cookie ?? 'nobody'),
  });
  await sandbox.output(`await (await openTaskSpace('one')).goto('${origin}/login')`);
  const who = (name) => `{ const page = await openTaskSpace('${name}')
    cliLog(await page.title()); await page.goto('${origin}/who'); cliLog(await page.text()) }`;
  assert.equal(await sandbox.output(who('one') + who('two')), 'in\nuser=ann\n\nnobody\n');

  const list = await sandbox.output(`
    cliLog(await completeTaskSpace('two', { keep: true }))
    cliLog(await listTaskSpaces())
    cliLog(await completeTaskSpace('one', { keep: false }))
    cliLog((await listTaskSpaces()).map(({ name, completed }) => ({ name, completed })))`);
  const [kept, all, closed, rest] = list
    .trim()
    .split('\n')
    .map((line) => JSON.parse(line));
  assert.deepEqual(kept, { name: 'two', found: true, closed: false });
  assert.deepEqual(
    all.map(({ name, completed, pages, url }) => ({ name, completed, pages, url })),
    [
      { name: 'one', completed: false, pages: 1, url: `${origin}/who` },
      { name: 'two', completed: true, pages: 1, url: `${origin}/who` },
    ],
  );
  assert.deepEqual(closed, { name: 'one', found: true, closed: true });
  assert.deepEqual(rest, [{ name: 'two', completed: true }]);
  assert.equal(await sandbox.output(who('one')), '\nnobody\n', 'a closed space forgets');
});

test('a page that crashed or closed itself is replaced, and who waits for it is told', async (t) => {
  const sandbox = new Sandbox(t);
  const stdout = await sandbox.output(`
    let page = await openTaskSpace('frail')
    const waiting = page.evaluate('new Promise(() => {})').catch((error) => cliLog(error.message))
    page.goto('chrome://crash').catch(() => {})
    await waiting
    page = await openTaskSpace('frail')
    cliLog(await page.evaluate('1 + 1'))
    await page.evaluate('new Promise(() => close())').catch((error) => cliLog(error.message))
    await page.title().catch((error) => cliLog(error.message))
    cliLog(await (await openTaskSpace('frail')).url())`);
  assert.deepEqual(stdout.split('\n'), [
    'the page crashed',
    '2',
    'the page was closed',
    'the page is no longer open',
    'about:blank',
    '',
  ]);
});

test('a page that hangs, its script killed, holds nobody up and can be closed', async (t) => {
  const sandbox = new Sandbox(t);
  const origin = await serve(t, { '/': HOME });
  const stuck = sandbox.start(`
    const page = await openTaskSpace('stuck')
    cliLog('hanging'); await page.evaluate('for (;;);')`);
  await waitFor('the page to hang', () => stuck.stdout.includes('hanging'));
  const other = `const page = await openTaskSpace('free')
    await page.goto('${origin}/'); cliLog(await page.title())`;
  assert.equal(await sandbox.output(other), 'Home\n');
  process.kill(-stuck.child.pid, 'SIGKILL');
  assert.equal((await stuck.result).signal, 'SIGKILL');
  assert.equal(await sandbox.output(other), 'Home\n');
  const close = `cliLog((await completeTaskSpace('stuck', { keep: false })).closed)`;
  assert.equal(await sandbox.output(close), 'true\n');
});
