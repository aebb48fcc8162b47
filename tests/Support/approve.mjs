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
  const pressed = await page.evaluate((label) => {
    const button = [...document.querySelectorAll('button')].find((b) => b.textContent === label)
    button?.focus()
    if (!button || document.activeElement !== button) return false
    window.stillTheOldPage = true
    button.click()
    return true
  }, ${JSON.stringify(label)})
  if (!pressed) throw new Error('no such button to press; the page says: ' + await page.text())
  const arrived = () => page
    .evaluate("!window.stillTheOldPage && document.readyState === 'complete'")
    .catch(() => false) // asked in the middle of the change
  const deadline = Date.now() + 15000
  while (!(await arrived())) {
    if (Date.now() > deadline) throw new Error('no other page followed within 15 s')
    await new Promise((resolve) => setTimeout(resolve, 20))
  }
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
