/** What another user of the computer can reach of a browser. Runs as root alone, who can be both. */

import assert from 'node:assert/strict';
import { spawnSync } from 'node:child_process';
import crypto from 'node:crypto';
import fs from 'node:fs';
import path from 'node:path';
import test from 'node:test';

import { PROGRAM, Sandbox, readProc, serve, waitFor } from './sandbox.mjs';

const OWNER = 65001;
const STRANGER = 65002;

/** Run by the stranger with paths as arguments; prints those that it got into. */
const PRY = `
  const fs = require('node:fs'), net = require('node:net')
  const attempts = [fs.readFileSync, fs.readdirSync, (path) => fs.appendFileSync(path, '')]
  for (const path of process.argv.slice(1)) {
    if (attempts.some((attempt) => { try { attempt(path); return true } catch { return false } }))
      console.log(path)
    else net.connect(path).on('error', () => {}).on('connect', function () {
      console.log(path); this.destroy() })
  }`;

function strangersFinds(paths) {
  const identity = { uid: STRANGER, gid: STRANGER, cwd: '/' };
  const args = ['-e', PRY, ...paths];
  const { stdout, stderr } = spawnSync(process.execPath, args, { ...identity, encoding: 'utf8' });
  assert.equal(stderr, '');
  return stdout.split('\n').filter(Boolean).sort();
}

/** A directory and everything below it. */
function everythingIn(directory) {
  const entries = fs.readdirSync(directory, { recursive: true });
  return [directory, ...entries.map((entry) => path.join(directory, entry))];
}

function reasonToSkip() {
  if (process.getuid() !== 0) return 'only root can be two other users';
  const identity = { uid: OWNER, gid: OWNER, cwd: '/' };
  const { status } = spawnSync('unshare', ['--user', 'true'], identity);
  return status === 0 ? false : 'this machine allows Chromium no sandbox of its own';
}

test(
  'another user reaches nothing, and pages are held in a sandbox',
  {
    skip: reasonToSkip(),
  },
  async (t) => {
    process.umask(0); // whatever is private is so on purpose
    const sandbox = new Sandbox(t, { uid: OWNER });
    fs.chmodSync(sandbox.root, 0o755);
    const shared = path.join(sandbox.root, 'shared');
    fs.mkdirSync(shared, { mode: 0o777 });
    fs.chmodSync(shared, 0o1777);
    sandbox.env.TMPDIR = shared;

    // A login that the keeper writes anew, in a directory that others may look into.
    const state = path.join(sandbox.root, 'state');
    const kept = path.join(state, 'verdo-browser');
    const hash = crypto.createHash('sha256').update('mine').digest('hex');
    fs.mkdirSync(kept, { recursive: true, mode: 0o777 });
    const login = path.join(kept, `space-${hash}.json`);
    fs.writeFileSync(login, '{"format": 1, "cookies": [], "storage": []}');
    for (const file of [state, kept, login]) fs.chownSync(file, OWNER, OWNER);
    sandbox.env.XDG_STATE_HOME = state;

    const origin = await serve(t, {
      '/': '<a href=/file>get</a><script>document.cookie = "user=ann"</script>',
      '/file': (_, response) => {
        response.writeHead(200, { 'Content-Disposition': 'attachment; filename=secret.txt' });
        response.end('secret');
      },
    });
    await sandbox.output(`await (await openTaskSpace('mine')).goto('${origin}/')`);
    await waitFor('the login to be kept', () => fs.readFileSync(login, 'utf8').includes('ann'));
    const script = sandbox.start(`
    const page = await openTaskSpace('mine')
    cliLog((await page.waitForDownload(() => page.click('a'))).path)
    await page.evaluate('new Promise(() => {})')`);
    const download = (await waitFor('the download', () => script.stdout)).trim();
    assert.ok(download.startsWith(shared));

    const files = [sandbox.directory, kept, path.dirname(download)].flatMap(everythingIn);
    const expected = ['keeper.sock', 'keeper.log', 'secret.txt', path.basename(login), 'Default'];
    for (const name of expected)
      assert.ok(
        files.some((file) => file.endsWith(`/${name}`)),
        name,
      );
    assert.deepEqual(strangersFinds([sandbox.root, shared]), [sandbox.root, shared]);
    assert.deepEqual(strangersFinds(files), []);

    const { keeper, browser } = sandbox.family();
    const renderers = browser.filter((pid) => /--type=renderer/.test(commandOf(pid)));
    assert.ok(renderers.length > 0);
    for (const pid of [keeper, ...browser]) assert.doesNotMatch(commandOf(pid), /--no-sandbox/);
    const namespace = (pid) => fs.readlinkSync(`/proc/${pid}/ns/user`);
    for (const pid of renderers) {
      assert.notEqual(namespace(pid), namespace(process.pid));
      assert.match(readProc(`/proc/${pid}/status`), /^Seccomp:\t2$/m);
    }
  },
);

test("a directory of another user's is used for nothing", { skip: reasonToSkip() }, async (t) => {
  for (const variable of ['XDG_RUNTIME_DIR', 'XDG_STATE_HOME']) {
    const sandbox = new Sandbox(t, { uid: OWNER });
    const trap = path.join(sandbox.root, 'trap');
    fs.mkdirSync(path.join(trap, 'verdo-browser'), { recursive: true });
    fs.chownSync(path.join(trap, 'verdo-browser'), STRANGER, STRANGER);
    fs.chmodSync(path.join(trap, 'verdo-browser'), 0o777);
    sandbox.env[variable] = trap;
    const args = variable === 'XDG_STATE_HOME' ? ['forget'] : ['nodejs'];
    const { code, stderr } = await sandbox.run(`await openTaskSpace('a')`, { args });
    assert.match(stderr, new RegExp(`it belongs to user ${STRANGER}; set ${variable} to`));
    assert.equal(code, 1);
  }
});

const commandOf = (pid) => readProc(`/proc/${pid}/cmdline`);
