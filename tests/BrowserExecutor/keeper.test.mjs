/** The background process that owns the browser: its start, its privacy and its ends. */

import assert from 'node:assert/strict';
import fs from 'node:fs';
import net from 'node:net';
import path from 'node:path';
import test from 'node:test';

import { Sandbox, alive, listeners, readProc, serve, waitFor } from './sandbox.mjs';

const OPEN = `cliLog(await (await openTaskSpace('a')).evaluate('6 * 7'))`;

/** That nothing of a keeper is left: no process, and no file but these. */
async function assertGone(sandbox, { keeper, browser }, files = ['keeper.lock', 'keeper.log']) {
  const left = () => [keeper, ...browser].filter(alive);
  await waitFor('keeper and browser to end', () => left().length === 0);
  assert.deepEqual(filesOf(sandbox), files);
}

const filesOf = (sandbox) => fs.readdirSync(sandbox.directory).sort();

test('keeper and browser are private to the user and out of the reach of the script', async (t) => {
  const sandbox = new Sandbox(t);
  const secrets = { VERDO_DRIVER_TOKEN: 'token-5157', VERDO_LLM_API_KEY: 'key-5157' };
  const run = sandbox.start(OPEN, {
    env: { ...secrets, NODE_OPTIONS: '--no-deprecation', HARMLESS: 'mark-5157' },
  });
  const { stdout } = await run.result; // its pipes closed: nobody else holds them
  assert.equal(stdout, '42\n');

  const { keeper, browser, main } = sandbox.family();
  const environments = [keeper, main].map((pid) => readProc(`/proc/${pid}/environ`));
  for (const environment of environments) {
    assert.match(environment, /mark-5157/);
    assert.doesNotMatch(environment, /token-5157|key-5157/);
  }
  assert.doesNotMatch(environments[0], /NODE_OPTIONS/);

  const mode = (file) => (fs.statSync(file).mode & 0o777).toString(8);
  const profile = fs.readdirSync(sandbox.directory).find((name) => name.startsWith('profile-'));
  assert.deepEqual(
    [sandbox.socket, sandbox.directory, `${sandbox.directory}/${profile}`].map(mode),
    ['600', '700', '700'],
  );

  await serve(t, {});
  assert.ok(listeners().includes(process.pid));
  assert.deepEqual(
    listeners().filter((pid) => [keeper, ...browser].includes(pid)),
    [],
  );

  assert.throws(() => process.kill(-run.child.pid, 'SIGKILL'), { code: 'ESRCH' }, 'group is empty');
  assert.ok(alive(keeper) && alive(main));
});

test('after each kind of end nothing is left, and the next script starts anew', async (t) => {
  const ends = {
    'keeper told to stop': (sandbox) => sandbox.output('', { args: ['stop'] }),
    'keeper SIGTERM': (_, { keeper }) => process.kill(keeper, 'SIGTERM'),
    'browser killed': (_, { main }) => process.kill(main, 'SIGKILL'),
    'socket removed': (sandbox) => fs.rmSync(sandbox.socket),
    'keeper killed': (_, { keeper }) => process.kill(keeper, 'SIGKILL'),
  };
  for (const [name, end] of Object.entries(ends)) {
    await t.test(name, async (t) => {
      const sandbox = new Sandbox(t);
      const waiting = sandbox.start(`${OPEN}
        const b = await openTaskSpace('b'); cliLog('open'); await b.evaluate('new Promise(() => {})')`);
      await waitFor('the script to wait', () => waiting.stdout.includes('open'));
      const family = sandbox.family();
      assert.match(
        await sandbox.output('', { args: ['status'] }),
        new RegExp(`pid ${family.keeper}`),
      );
      const files = filesOf(sandbox);
      await end(sandbox, family);
      // Its socket and its profile are left to the next one.
      await assertGone(sandbox, family, name === 'keeper killed' ? files : undefined);
      const { code, stderr } = await waiting.result;
      const how = name === 'keeper killed' ? ' unexpectedly' : ': ';
      assert.match(stderr, RegExp(`script line 2: \\w+: evaluate: the browser keeper ended${how}`));
      assert.equal(code, 1);
      assert.equal(await sandbox.output('cliLog(await listTaskSpaces())'), '[]\n');
      assert.equal(await sandbox.output(OPEN), '42\n');
      assert.equal(filesOf(sandbox).length, files.length);
    });
  }
});

test(
  'what hangs is ended for the next script, which is told what is lost',
  {
    concurrency: true,
  },
  async (t) => {
    const hangs = {
      'a stopped keeper': {
        stop: ({ keeper }) => process.kill(keeper, 'SIGSTOP'),
        told: /keeper did not answer: it \(pid \d+\) was ended, with its browser/,
      },
      'a stopped browser': {
        stop: ({ browser }) => browser.forEach((pid) => process.kill(pid, 'SIGSTOP')),
        told: /the browser did not answer for 5 s; lost with it: "a"/,
      },
    };
    const subtests = Object.entries(hangs).map(([name, { stop, told }]) =>
      t.test(name, async (t) => {
        const sandbox = new Sandbox(t);
        await sandbox.output(OPEN);
        const { keeper, browser } = sandbox.family();
        stop({ keeper, browser });
        const next = await sandbox.run(OPEN);
        assert.deepEqual([next.code, next.stdout], [0, '42\n'], next.stderr);
        assert.match(next.stderr, told);
        await waitFor('them to end', () => [keeper, ...browser].every((pid) => !alive(pid)));

        const again = sandbox.family();
        stop(again);
        assert.equal(await sandbox.output('', { args: ['stop'] }), 'stopped\n');
        await waitFor('the end', () =>
          [again.keeper, ...again.browser].every((pid) => !alive(pid)),
        );
      }),
    );
    await Promise.all(subtests);
  },
);

test('a keeper of another protocol can be looked at and ended, and is not used', async (t) => {
  const sandbox = new Sandbox(t);
  fs.mkdirSync(sandbox.directory, { mode: 0o700 });
  const seen = [];
  const replies = {
    hello: { protocol: 1, pid: 4711 },
    list: { spaces: [{ name: 'old', createdAt: 'then', completed: false, pages: 1, url: 'u' }] },
    complete: { found: true, closed: true },
    stop: {},
  };
  const server = net.createServer((socket) => {
    socket.on('data', (lines) => {
      for (const line of lines.toString().trim().split('\n')) {
        const { id, method } = JSON.parse(line);
        seen.push(method);
        socket.write(`${JSON.stringify({ id, result: replies[method] })}\n`);
        if (method === 'stop') socket.end();
      }
    });
  });
  await new Promise((resolve) => server.listen(sandbox.socket, resolve));
  t.after(() => server.close());
  const { code, stderr } = await sandbox.run(OPEN);
  assert.equal(code, 1);
  const older =
    /keeper \(pid 4711\) runs an older version, this is [\d.]+: verdo-browser stop ends it/;
  assert.match(stderr, older);
  const list = await sandbox.run('', { args: ['list'] });
  assert.match(list.stdout, /"old" {2}open/);
  assert.match(list.stderr, older);
  assert.equal(await sandbox.output('', { args: ['close', 'old'] }), 'closed\n');
  assert.equal(await sandbox.output('', { args: ['stop'] }), 'stopped\n');
  assert.deepEqual(
    seen.filter((method) => method !== 'hello'),
    ['list', 'complete', 'stop'],
  );
});

test('a keeper that an upgrade finds running goes on, and says which version it is', async (t) => {
  const sandbox = new Sandbox(t);
  const upgraded = sandbox.program;
  sandbox.program = sandbox.copyProgram();
  const now = (await sandbox.output('', { args: ['--version'] })).split(' ')[1].trim();
  const home = path.dirname(sandbox.program);
  for (const name of fs.readdirSync(home, { recursive: true }).filter((f) => f.endsWith('.mjs'))) {
    const file = path.join(home, name);
    fs.writeFileSync(file, fs.readFileSync(file, 'utf8').replaceAll(now, '2001.02.03'));
  }
  const same = await sandbox.run(OPEN);
  assert.deepEqual([same.stdout, same.stderr], ['42\n', '']);

  sandbox.program = upgraded;
  const { keeper } = sandbox.family();
  const told =
    `verdo-browser: the browser keeper (pid ${keeper}) runs version 2001.02.03, this is ${now}: ` +
    'verdo-browser stop ends it, with its task spaces, and the next script starts the new one\n';
  const count = 'cliLog((await listTaskSpaces()).length);';
  for (const [text, output] of [
    [`${OPEN}; await openTaskSpace('b')`, '42\n'],
    [`${count} ${count}`, '2\n2\n'],
  ]) {
    const script = await sandbox.run(text);
    assert.deepEqual([script.stdout, script.stderr], [output, told]);
  }
  assert.equal((await sandbox.run('', { args: ['list'] })).stderr, told);
  const status = await sandbox.run('', { args: ['status'] });
  assert.match(status.stdout, /^version 2001\.02\.03$/m);
  assert.equal(status.stderr, told);

  const stop = await sandbox.run('', { args: ['stop'] });
  assert.deepEqual([stop.stdout, stop.stderr], ['stopped\n', '']);
  const next = await sandbox.run(OPEN);
  assert.deepEqual([next.stdout, next.stderr], ['42\n', '']);
});

test('a keeper that nobody needs ends, but not before', async (t) => {
  const sandbox = new Sandbox(t);
  const env = { VERDO_BROWSER_IDLE_EXIT: '0.3' };
  await sandbox.output(OPEN, { env });
  const family = sandbox.family();
  await new Promise((resolve) => setTimeout(resolve, 600)); // twice the idle time
  assert.ok(alive(family.keeper), 'its task space keeps it');
  await sandbox.output(`await completeTaskSpace('a', { keep: false })`);
  await assertGone(sandbox, family);
});
