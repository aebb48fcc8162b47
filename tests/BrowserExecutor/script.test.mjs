/** The command line and the life of a script; none of these starts a browser. */

import assert from 'node:assert/strict';
import fs from 'node:fs';
import path from 'node:path';
import test from 'node:test';
import { setTimeout as sleep } from 'node:timers/promises';

import { Sandbox, waitFor } from './sandbox.mjs';

test('a failing script names its line and exits 1', async (t) => {
  const sandbox = new Sandbox(t);
  const cases = [
    {
      script: 'cliLog("no")\nlet x = ;',
      stderr: /script line 2: SyntaxError: Unexpected token ';'/,
    },
    { script: 'if (true) {\n', stderr: /script line 1: SyntaxError: the script ends before/ },
    { script: 'f(`a\nb', stderr: /script line 2: SyntaxError: the script ends before/ },
    { script: 'f()\n  }\nf()', stderr: /script line 2: .*token '}'\n    }\n    \^\n$/ },
    { script: 'f() } f()', stderr: /script line 1: .*token '}'\n  f\(\) } f\(\)\n {6}\^\n$/ },
    { script: 'f(1 2)', stderr: /script line 1: SyntaxError: missing \) after argument list/ },
    { script: '1\nimport os from "node:os"', stderr: /script line 2: .*await import/ },
    { script: '`\nimport a`\nf(import.meta)', stderr: /script line 3: .*process.cwd/ },
    { script: 'require("./broken.js")', stderr: /line 1: SyntaxError.*\n.*broken.js:2\n  \]\n/ },
    { script: '\n\nthrow new RangeError("hm")', stderr: /script line 3: RangeError: hm/ },
    { script: 'await 1\nawait Promise.reject(new Error("r"))', stderr: /script line 2: Error: r/ },
    { script: 'setTimeout(() => {\n  null.x\n})', stderr: /script line 2: TypeError/ },
    {
      script: 'await Promise.any([Promise.reject(9)])',
      stderr: /AggregateError.*\ncaused by: 9\n/,
    },
    { script: 'throw "text"', stderr: /script threw 'text'/ },
    { script: 'await new Promise(() => {})', stderr: /waits for something/ },
    { script: 'await openTaskSpace("")', stderr: /script line 1: TypeError: .*name/ },
    { script: Buffer.from([0x22, 0xff, 0x22]), stderr: /not UTF-8/ },
  ];
  fs.writeFileSync(path.join(sandbox.root, 'broken.js'), '1\n]');
  const results = await Promise.all(cases.map(({ script }) => sandbox.run(script)));
  results.forEach(({ code, stdout, stderr }, i) => {
    assert.match(stderr, cases[i].stderr);
    assert.deepEqual({ code, stdout }, { code: 1, stdout: '' }, `${cases[i].script}`);
  });
});

test('a script has what node has, and prints in order to the last byte', async (t) => {
  const sandbox = new Sandbox(t);
  fs.writeFileSync(path.join(sandbox.root, 'part.mjs'), 'export default "part"');
  fs.writeFileSync(path.join(sandbox.root, 'data.json'), '{"n": 7}');
  const stdout = await sandbox.output(
    `#!/usr/bin/env node
     cliLog('%s', 'two\\nlines', ''); console.log('console'); cliLog()
     cliLog({ a: [1, null] }, undefined, 7n, new Map([[1, 2]]), Symbol('s'))
     const circle = {}; circle.self = circle; cliLog(circle)
     cliLog((await import('./part.mjs')).default + require('./data.json').n)
     setTimeout(() => cliLog('x'.repeat(300000) + 'end'), 20)`,
  );
  const printed = `%s two\nlines \nconsole\n\n{ a: [ 1, null ] } undefined 7n Map(1) { 1 => 2 } Symbol(s)
<ref *1> { self: [Circular *1] }\npart7\n`;
  assert.ok(stdout === `${printed}${'x'.repeat(300000)}end\n`, stdout.slice(0, 300));
});

test('what a script printed before it failed arrives whole and in order', async (t) => {
  const sandbox = new Sandbox(t);
  const lines = 100_000;
  const shared = `new (require('node:net').Socket)({ fd: 1 }) // makes the pipe non-blocking\n`;
  for (const before of ['', shared]) {
    const { code, stdout, stderr } = await sandbox.run(
      `${before}cliLog('x'.repeat(1_000_000))
       for (let i = 0; i < ${lines}; i += 4) {
         cliLog(i + ' of many lines'); console.log(i + 1 + ' of many lines')
         process.stdout.write(i + 2 + ' of many lines\\n'); console.info('%d of many lines', i + 3)
       }
       for (let i = 0; i < 3000; i++) console.error('diagnosis')
       throw new Error('at the end')`,
    );
    assert.match(stderr, /^(diagnosis\n){3000}verdo-browser: script line \d: Error: at the end\n/);
    assert.equal(code, 1);
    const expected =
      'x'.repeat(1_000_000) +
      '\n' +
      Array.from({ length: lines }, (_, i) => `${i} of many lines\n`).join('');
    assert.ok(stdout === expected, `${stdout.split('\n').length - 1} lines arrived`);
  }
});

test('printing more than the reader takes fills no memory, and ends with the reader', async (t) => {
  const sandbox = new Sandbox(t);
  const grown = await sandbox.output(
    `const before = process.memoryUsage().rss
     for (let i = 0; i < 1000; i++) cliLog('x'.repeat(99_999))
     cliLog(Math.round((process.memoryUsage().rss - before) / 2 ** 20))`,
  );
  assert.ok(Number(grown.slice(100_000_000)) < 40, `${grown.slice(100_000_000)} MB more`);

  const run = sandbox.start('for (;;) cliLog("x".repeat(1000))');
  run.child.stdout.once('data', () => run.child.stdout.destroy());
  const { code, stderr } = await run.result;
  assert.deepEqual({ code, stderr }, { code: 1, stderr: '' });
});

test('errors show the frames of the author, and no others', async (t) => {
  const sandbox = new Sandbox(t);
  const root = fs.realpathSync(sandbox.root);
  fs.writeFileSync(path.join(root, 'part.js'), 'exports.call = (f) => f()');
  const { stdout, stderr } = await sandbox.run(
    `/* columns */ cliLog(new Error('at once').stack)
     const fail = () => { throw new Error('hm', { cause: new TypeError('why') }) }
     const { call } = require('./part.js')
     try { [1].map(() => call(fail)) } catch (error) { console.log(error) }
     try { require('fs').readFileSync('/none') } catch (error) { cliLog(error.stack) }
     await completeTaskSpace('').catch((error) => cliLog(error.stack))
     const emitter = new (require('events'))(); let depth = 20
     emitter.on('deeper', () => depth-- ? emitter.emit('deeper') : cliLog(new Error('deep').stack))
     emitter.emit('deeper')
     await call(fail)`,
  );
  const called = (line) =>
    `@fail (script:2:X)@exports.call (${root}/part.js:1:23)@script:${line}:X`;
  const expected = [
    'Error: at once@script:1:22',
    `Error: hm${called(4)}@script:4:X {\n  [cause]: TypeError: why${called(4)}@script:4:X\n}`,
    "Error: ENOENT: no such file or directory, open '/none'@script:5:X",
    "TypeError: a task space's name is a text of 1 to 1000 characters@script:6:X",
    `Error: deep${'@EventEmitter.<anonymous> (script:8:X)'.repeat(10)}`,
    `verdo-browser: script line 2: Error: hm${called(10)}`,
    `caused by: TypeError: why${called(10)}`,
  ];
  const seen = (stdout + stderr)
    .replaceAll(/\n +at /g, '@')
    .replaceAll(/(script:(?!1:)\d+):\d+/g, '$1:X');
  assert.equal(seen, `${expected.join('\n')}\n`);
});

test('secrets are nowhere in the environment of a script and its children', async (t) => {
  const sandbox = new Sandbox(t);
  const seen = await sandbox.output(
    `const { execFileSync } = require('node:child_process')
     console.log(process.env, require('node:fs').readFileSync('/proc/self/environ', 'latin1'))
     process.stdout.write(execFileSync('sh', ['-c', 'env; cat /proc/$PPID/environ']))`,
    {
      env: {
        VERDO_DRIVER_TOKEN: 'hidden-1',
        VERDO_LLM_API_KEY: 'hidden-2',
        VERDO_CLIENT_SECRET: 'hidden-3',
        VERDO_PROXY_PASSWORD: 'hidden-4',
        VERDO_LLM_BASE_URL: 'open-1',
        MY_TOKEN: 'open-2',
      },
    },
  );
  assert.deepEqual(seen.match(/hidden-\d/g), null);
  for (const value of ['open-1', 'open-2']) assert.equal(seen.split(value).length - 1, 4, value);
});

test('a node that is too old is told what to do', async (t) => {
  const sandbox = new Sandbox(t);
  const old = path.join(sandbox.root, 'old.cjs');
  fs.writeFileSync(old, "Object.defineProperty(process.versions, 'node', { value: '16.20.2' })");
  const { code, stderr } = await sandbox.run('', { env: { NODE_OPTIONS: `--require=${old}` } });
  assert.match(stderr, /needs node 18 or later, this is 16\.20\.2: install/);
  assert.equal(code, 1);
});

test('a script that comes too late to hear why no browser starts tries only once', async (t) => {
  const sandbox = new Sandbox(t);
  const broken = path.join(sandbox.root, 'broken');
  const [begun, goOn] = ['begun', 'go-on'].map((name) => path.join(sandbox.root, name));
  const program = `#!/bin/sh
touch ${begun}
until [ -e ${goOn} ]; do sleep 0.02; done
echo no display >&2
exit 3
`;
  fs.writeFileSync(broken, program, { mode: 0o755 });
  const run = sandbox.start('await openTaskSpace("a")', {
    env: { VERDO_BROWSER_CHROMIUM: broken },
  });
  run.child.kill('SIGSTOP'); // so early that it has not connected, or has and is told
  const log = path.join(sandbox.directory, 'keeper.log');
  const ends = () => (fs.existsSync(log) ? fs.readFileSync(log, 'utf8').match(/ends:/g) : []);
  await steps(run.child, begun);
  fs.writeFileSync(goOn, '');
  await waitFor('the keeper to give up', () => ends().length > 0);
  run.child.kill('SIGCONT');
  const { code, stderr } = await run.result;
  assert.match(stderr, /broken did not start.*\n?.*no display/);
  assert.equal(code, 1);
  assert.equal(ends().length, 1);
});

/** Lets the process run in short steps until the file is there, and leaves it stopped. */
async function steps(child, file) {
  await waitFor(file, async () => {
    if (fs.existsSync(file)) return true;
    child.kill('SIGCONT');
    await sleep(10);
    child.kill('SIGSTOP');
    return false;
  });
}

test('what keeps the browser from starting is said with its remedy', async (t) => {
  const sandbox = new Sandbox(t);
  const nodeOnly = path.join(sandbox.root, 'bin');
  fs.mkdirSync(nodeOnly);
  const notADirectory = path.join(sandbox.root, 'file');
  fs.writeFileSync(notADirectory, '');
  const broken = path.join(sandbox.root, 'broken');
  fs.writeFileSync(broken, '#!/bin/sh\necho no display >&2\nexit 3\n', { mode: 0o755 });
  const taken = path.join(sandbox.root, 'taken');
  fs.mkdirSync(path.join(taken, 'verdo-browser', 'keeper.sock'), { recursive: true });
  const cases = [
    {
      env: { PATH: nodeOnly },
      stderr: /package chromium-headless-shell or chromium.*VERDO_BROWSER_CHROMIUM/,
    },
    { env: { VERDO_BROWSER_CHROMIUM: '/nonexistent' }, stderr: /names \/nonexistent/ },
    { env: { VERDO_BROWSER_CHROMIUM: broken }, stderr: /broken did not start.*\n?.*no display/ },
    { env: { VERDO_BROWSER_IDLE_EXIT: 'soon' }, stderr: /number of seconds, not 'soon'/ },
    { env: { XDG_RUNTIME_DIR: `/tmp/${'x'.repeat(90)}` }, stderr: /shorter directory/ },
    { env: { XDG_RUNTIME_DIR: notADirectory }, stderr: /set XDG_RUNTIME_DIR/ },
    { env: { XDG_RUNTIME_DIR: taken }, stderr: /keeper.sock is in the way: remove it/ },
    { env: { XDG_RUNTIME_DIR: '/proc/self' }, stderr: /cannot use the directory \/proc\/self/ },
  ];
  for (const { env, stderr: expected } of cases) {
    const { code, stderr } = await sandbox.run('await openTaskSpace("a")', { env });
    assert.match(stderr, expected);
    assert.equal(code, 1);
  }
});
