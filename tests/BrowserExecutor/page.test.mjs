/** Pages and task spaces, in a real browser. */

import assert from 'node:assert/strict';
import crypto from 'node:crypto';
import fs from 'node:fs';
import path from 'node:path';
import test from 'node:test';

import { Sandbox, serve, waitFor } from './sandbox.mjs';

const HOME = '<title>Home</title><p>seen</p><p style="display: none">hidden</p>';

/** Lines of a script that prints the message of what fails and the value of what does not. */
const ATTEMPT = `const attempt = async (action) => {
  try { cliLog(await action()) } catch (error) { cliLog(\`\${error.name}: \${error.message}\`) } }\n`;

/** What a script printed, a pattern a line. */
function assertLines(stdout, expected) {
  const lines = stdout.trimEnd().split('\n');
  expected.forEach((pattern, i) => assert.match(lines[i] ?? '', pattern, stdout));
  assert.equal(lines.length, expected.length, stdout);
}

test('a page is read, driven, pictured and printed', async (t) => {
  const sandbox = new Sandbox(t);
  const origin = await serve(t, { '/': HOME });
  const stdout = await sandbox.output(`
    const page = await openTaskSpace('read', { viewport: { width: 640, height: 480 },
      userAgent: 'Driver/1', locale: 'de-DE', timezone: 'Asia/Tokyo' })
    await page.goto('${origin}/#top')
    cliLog(await page.title(), await page.text(), page.url())
    cliLog(await page.evaluate((a, b) => [a.list.length + b, innerWidth, navigator.userAgent,
      navigator.language, (1.5).toLocaleString(), new Date(0).getHours()].join(),
      { list: [1, 2] }, 'x'))
    await page.screenshot({ path: 'shot.png' })
    cliLog(Buffer.from(await page.pdf()).subarray(0, 4).toString())`);
  const expected = `Home seen ${origin}/#top\n2x,640,Driver/1,de-DE,1,5,9\n%PDF\n`;
  assert.equal(stdout, expected);
  const png = fs.readFileSync(path.join(sandbox.root, 'shot.png'));
  assert.deepEqual([png.toString('latin1', 1, 4), png.readUInt32BE(16)], ['PNG', 640]);
});

test('a call that fails says which, where, after how long and what there was', async (t) => {
  const sandbox = new Sandbox(t);
  const origin = await serve(t, {
    '/': `<button id=covered>a</button><button id=hidden hidden>b</button><button id=off disabled>c
      </button><div class=cookie style="position: fixed; inset: 0"></div>`,
    '/silent': () => {},
  });
  const stdout = await sandbox.output(`${ATTEMPT}
    const page = await openTaskSpace('bad')
    await attempt(() => page.goto('no url'))
    await attempt(() => page.goto('http://nowhere.invalid/'))
    await attempt(() => page.goto('${origin}/silent', { timeout: 200 }))
    await page.goto('${origin}/')
    await attempt(() => page.waitForSelector('#none', { timeout: 200 }))
    await attempt(() => page.locator('#hidden').setTimeout(200).click())
    await attempt(() => page.locator('button').filter((b) => b.id === 'x').setTimeout(1200).wait())
    await attempt(() => page.locator('#off').setTimeout(200).click())
    await attempt(() => page.mainFrame().click('#none'))
    await attempt(() => page.waitForResponse(() => false, { timeout: 200 }))
    await attempt(() => page.evaluate(() => { throw new TypeError('boom') }))
    await attempt(() => page.evaluate((n) => n.length, 'x'.repeat(70e6)))
    await attempt(() => page.waitForPopup(() => {}, { timeout: 200 }))
    await attempt(() => page.waitForPopup(() => {}, { timout: 200 }))
    await attempt(() => openTaskSpace('bad', { viewprt: {} }))
    await attempt(() => openTaskSpace('worse', { timezone: 'Middle/Earth' }))
    await attempt(() => completeTaskSpace('bad', { kep: true }))
    await attempt(() => openTaskSpace('bad', { locale: 'de' }))
    const twins = await Promise.all([openTaskSpace('twin'), openTaskSpace('twin')])
    cliLog(twins[0] === twins[1])
    page.setDefaultTimeout(300)
    await attempt(() => page.waitForFunction((delay) => new Promise((resolve) =>
      setTimeout(resolve, delay, 'late')).then(() => true), { timeout: 9000 }, 400).then(() => 'ok'))
    page.setDefaultTimeout(9000)
    await attempt(() => page.evaluate((own) => new Promise((resolve) =>
      setTimeout(resolve, 100, own)), { timeout: 50 }))
    const session = await page.createCDPSession()
    const worker = new Promise((resolve) => page.once('workercreated', resolve))
    await page.evaluate(() => { new Worker(URL.createObjectURL(new Blob(['']))) })
    page.setDefaultTimeout(300)
    await attempt(() => page.evaluate(() => new Promise(() => {})))
    await attempt(async () => (await worker).evaluate('for (;;);'))
    await attempt(() => page.evaluate(() => { for (;;); }))
    await attempt(() => session.send('Runtime.evaluate', { expression: '1', timeout: 5 }))
    await attempt(() => page.accessibility.snapshot())`);
  const place = `on ${origin}/$`;
  assertLines(stdout, [
    /^\w*Error: goto 'no url': .*invalid URL on about:blank$/,
    /^Error: goto 'http:\/\/nowhere.invalid\/': net::ERR_\w+ on about:blank$/,
    /^TimeoutError: goto '.*silent': not loaded within 200 ms on .*$/,
    new RegExp(
      `^TimeoutError: waitForSelector '#none': not there within 200 ms .0 found. ${place}`,
    ),
    new RegExp(
      `^TimeoutError: click '#hidden': not visible within 200 ms .1 found, hidden. ${place}`,
    ),
    new RegExp(
      `wait 'button': not visible within 1.2 s .3 found, the first covered by div.cookie.`,
    ),
    new RegExp(
      `^TimeoutError: click '#off': not enabled within 200 ms .1 found, disabled. ${place}`,
    ),
    new RegExp(`^Error: click '#none': No element found for selector: #none .0 found. ${place}`),
    new RegExp(`^TimeoutError: waitForResponse: it did not happen within 200 ms ${place}`),
    /^TypeError: boom$/,
    /^Error: what is sent to the page at once can have 64 MiB, not more$/,
    new RegExp(`^TimeoutError: waitForPopup: it did not happen within 200 ms ${place}`),
    /^TypeError: waitForPopup: there is no option 'timout' \(timeout\)/,
    /^TypeError: openTaskSpace: there is no option 'viewprt' \(viewport, /,
    /^TypeError: openTaskSpace: timezone takes a time zone such as/,
    /^TypeError: completeTaskSpace: there is no option 'kep' \(keep\)$/,
    /^Error: task space "bad" is open: its options came first$/,
    /^true$/,
    /^ok$/,
    /^\{ timeout: 50 \}$/,
    ...['evaluate', 'evaluate', 'evaluate', "send 'Runtime.evaluate'", 'snapshot'].map(
      (call) => new RegExp(`^TimeoutError: ${call}: no answer within 300 ms ${place}`),
    ),
  ]);

  const { code, stderr } = await sandbox.run(
    `const page = await openTaskSpace('other')\n\nawait page.evaluate('nothing.x')`,
  );
  assert.match(stderr, /^verdo-browser: script line 3: ReferenceError: nothing is not defined/);
  assert.equal(code, 1);
});

test('a task space outlives its script, with cookies that no other space reaches', async (t) => {
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
    cliLog(await page.title()); await page.goto('${origin}/who'); cliLog(await page.text()) }\n`;
  assert.equal(await sandbox.output(who('one') + who('two')), 'in\nuser=ann\n\nnobody\n');

  // By the protocol, too, a script sees nothing of another space and cannot end it.
  const prying = await sandbox.output(`${ATTEMPT}
    const page = await openTaskSpace('two')
    const session = await page.createCDPSession()
    await attempt(async () => (await page.browserContext().cookies()).length)
    await attempt(async () => (await session.send('Storage.getCookies')).cookies.length)
    await attempt(() => session.send('Storage.getCookies', { browserContextId: 'ABC' }))
    await attempt(() => session.send('Target.getTargets'))
    await attempt(() => session.send('Target.closeTarget', { targetId: 'ABC' }))
    await attempt(() => session.send('Browser.close'))
    await attempt(async () => (await page.browser().newPage()).browserContext() === page.browserContext())
    await page.browser().close()`);
  assertLines(prying, [
    /^0$/,
    /^0$/,
    /Storage.getCookies: that browser context belongs to another task space/,
    /Target.getTargets is not for scripts: it would act on all task spaces/,
    /Target.closeTarget: there is no such page in this task space/,
    /Browser.close is not for scripts: completeTaskSpace closes a task space, verdo-browser stop/,
    /^true$/,
  ]);

  const list = await sandbox.output(`
    const print = (value) => cliLog(JSON.stringify(value))
    print(await completeTaskSpace('two', { keep: true }))
    print(await listTaskSpaces())
    print(await completeTaskSpace('one', { keep: false }))
    print((await listTaskSpaces()).map(({ name, completed }) => ({ name, completed })))`);
  const [kept, all, closed, rest] = list
    .trim()
    .split('\n')
    .map((line) => JSON.parse(line));
  assert.deepEqual(kept, { name: 'two', found: true, closed: false });
  assert.deepEqual(
    all.map(({ name, completed, pages, url }) => ({ name, completed, pages, url })),
    [
      { name: 'one', completed: false, pages: 1, url: `${origin}/who` },
      { name: 'two', completed: true, pages: 2, url: `${origin}/who` },
    ],
  );
  assert.deepEqual(closed, { name: 'one', found: true, closed: true });
  assert.deepEqual(rest, [{ name: 'two', completed: true }]);
  assert.equal(await sandbox.output(who('one')), '\nnobody\n', 'a closed space forgets');
});

test('files go both ways unharmed, and dialogs are answered', async (t) => {
  const sandbox = new Sandbox(t);
  const bytes = crypto.randomBytes(300_000);
  fs.writeFileSync(path.join(sandbox.root, 'photo.bin'), bytes);
  let received;
  const origin = await serve(t, {
    '/': `<form method=post enctype=multipart/form-data action=/take><input type=file name=f>
      <button>send</button></form><a href=/file id=get>get</a>`,
    '/file': (_, response) => {
      response.writeHead(200, { 'Content-Disposition': 'attachment; filename="../a b.bin"' });
      response.end(bytes);
    },
    '/take': (request, response) => {
      const chunks = [];
      request.on('data', (chunk) => chunks.push(chunk));
      request.on('end', () => {
        received = Buffer.concat(chunks);
        response.end('<title>taken</title>');
      });
    },
  });
  const { stdout, stderr, code } = await sandbox.run(`
    const fs = require('node:fs'), crypto = require('node:crypto')
    const sum = (file) => crypto.createHash('sha256').update(fs.readFileSync(file)).digest('hex')
    const page = await openTaskSpace('files')
    await page.goto('${origin}/')
    const first = await page.waitForDownload(() => page.click('#get'))
    cliLog(first.name, first.url, sum(first.path), first.path.includes('verdo-downloads-'))
    cliLog(await page.evaluate(() => confirm('sure?')))
    page.on('dialog', (dialog) => dialog.accept('typed'))
    cliLog(await page.evaluate(() => prompt('name?')))
    await (await page.$('input[type=file]')).uploadFile('photo.bin')
    await Promise.all([page.waitForNavigation(), page.click('button')])
    cliLog(await page.title())
    const kept = await openTaskSpace('kept', { downloads: 'here' })
    await kept.goto('${origin}/')
    for (let i = 0; i < 2; ++i) cliLog((await kept.waitForDownload(() => kept.click('#get'))).path)
    `);
  assert.equal(code, 0, stderr);
  const digest = crypto.createHash('sha256').update(bytes).digest('hex');
  const here = path.join(sandbox.root, 'here');
  assert.deepEqual(stdout.trim().split('\n'), [
    `${'_a b.bin'} ${origin}/file ${digest} true`,
    'false',
    'typed',
    'taken',
    `${here}/_a b.bin`,
    `${here}/_a b (1).bin`,
  ]);
  assert.equal(stderr, `verdo-browser: dismissed the confirm "sure?" on ${origin}/\n`);
  assert.ok(received.includes(bytes), 'the site got other bytes than the file has');
  const left = fs.readdirSync(sandbox.temporary).filter((name) => name.startsWith('verdo-'));
  await waitFor('the downloads to be removed', () => left.every((name) => !fs.existsSync(name)));
});

test('each download is for the call that waits for it, whichever page begins it', async (t) => {
  const sandbox = new Sandbox(t);
  const origin = await serve(t, {
    '/': '<a id=pop target=_blank href=/file>p</a><iframe src="/inner"></iframe>',
    '/inner': '<a href=/file>i</a>',
    '/file': (_, response) => {
      const name = encodeURIComponent(`${'\u8a9e'.repeat(100)}.txt`);
      const disposition = `attachment; filename*=UTF-8''${name}`;
      response.writeHead(200, { 'Content-Disposition': disposition });
      response.end('data');
    },
  });
  const stdout = await sandbox.output(`${ATTEMPT}
    const fs = require('node:fs')
    const page = await openTaskSpace('loads', { userAgent: 'Driver/1' })
    await page.goto('${origin}/')
    await attempt(() => page.waitForDownload(() => {}, { timeout: 100 }))
    await attempt(() => page.waitForDownload(() => { throw new TypeError('mine') }))
    const told = async (from, action) => {
      const { name, path } = await from.waitForDownload(action, { timeout: 5000 })
      cliLog(name, fs.readFileSync(path, 'utf8'))
    }
    await told(page, () => page.goto('${origin}/file'))
    await told(page, () => page.click('#pop'))
    await told(page, () => page.frames()[1].click('a'))
    const stranger = await openTaskSpace('stranger')
    await stranger.goto('${origin}/')
    await Promise.all([page, stranger].map((one) => told(one, () => one.click('#pop'))))
    const other = await page.browser().newPage()
    cliLog(await other.evaluate(() => navigator.userAgent))
    await told(other, () => other.goto('${origin}/file'))`);
  const name = new RegExp(`^\u8a9e{40}.txt data$`);
  assertLines(stdout, [
    /^TimeoutError: waitForDownload: it did not happen within 100 ms on /,
    /^TypeError: mine$/,
    ...Array(5).fill(name),
    /^Driver\/1$/,
    name,
  ]);
});

test('a page that crashed or closed itself is replaced, and who waits for it is told', async (t) => {
  const sandbox = new Sandbox(t);
  const stdout = await sandbox.output(`${ATTEMPT}
    let page = await openTaskSpace('frail')
    const waiting = attempt(() => page.evaluate('new Promise(() => {})'))
    page.goto('chrome://crash').catch(() => {})
    await waiting
    page = await openTaskSpace('frail')
    cliLog(await page.evaluate('1 + 1'))
    await attempt(() => page.evaluate('new Promise(() => close())'))
    await attempt(() => page.title())
    cliLog((await openTaskSpace('frail')).url())`);
  assertLines(stdout, [
    /^TargetCloseError: evaluate: .*Target closed/,
    /^2$/,
    /^TargetCloseError: evaluate: .*Target closed/,
    /^\w*Error: title: /,
    /^about:blank$/,
  ]);
});

test('a page that hangs is replaced for the next script, and holds nobody else up', async (t) => {
  const sandbox = new Sandbox(t);
  const origin = await serve(t, { '/': HOME });
  const stuck = sandbox.start(`
    const page = await openTaskSpace('stuck')
    await page.goto('${origin}/')
    cliLog('hanging'); await page.evaluate('for (;;);')`);
  await waitFor('the page to hang', () => stuck.stdout.includes('hanging'));
  const other = `const page = await openTaskSpace('free')
    await page.goto('${origin}/'); cliLog(await page.title())`;
  assert.equal(await sandbox.output(other), 'Home\n');
  process.kill(-stuck.child.pid, 'SIGKILL');
  assert.equal((await stuck.result).signal, 'SIGKILL');
  const next = await sandbox.run(`cliLog((await openTaskSpace('stuck')).url())`);
  assert.equal(next.stdout, 'about:blank\n');
  assert.match(next.stderr, /page of task space "stuck" .*did not answer for 10 s: it was closed/);
});
