/**
 * Decides a pairing as a person does: opens the approve page in a headless browser of its own,
 * presses one of its buttons and prints the visible text of the page that follows.
 *
 * Usage: node tests/Support/approve.mjs VERDO_BROWSER URL Approve|Deny
 *
 * Exits 0 when the press led to another page, and 1 with a message when there is no such button or
 * nothing came of it in time.
 */

import { spawnSync } from 'node:child_process';
import fs from 'node:fs';
import os from 'node:os';
import path from 'node:path';

const TIMEOUT = 40_000;

const script = (url, label) => `
  const page = await openTaskSpace('approve')
  await page.goto(${JSON.stringify(url)}, { timeout: 15000 })
  const button = page.locator('::-p-aria(${label}[role="button"])')
  await Promise.all([page.waitForNavigation(), button.click()])
  cliLog(await page.text())`;

const [program, url, label] = process.argv.slice(2);
const home = fs.mkdtempSync(path.join(os.tmpdir(), 'verdo-approve-'));
const run = (args, input) =>
  spawnSync(process.execPath, [program, ...args], {
    env: { ...process.env, XDG_RUNTIME_DIR: home },
    input,
    stdio: ['pipe', args[0] === 'stop' ? 'ignore' : 'inherit', 'inherit'],
    timeout: TIMEOUT,
  }).status ?? 1;
process.exitCode = run(['nodejs'], script(url, label));
run(['stop'], '');
fs.rmSync(home, { recursive: true, force: true, maxRetries: 10, retryDelay: 50 });
