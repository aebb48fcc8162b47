/** The examples of the guide print what it says they do. */

import assert from 'node:assert/strict';
import fs from 'node:fs';
import test from 'node:test';

import { Sandbox, serve } from './sandbox.mjs';

const GUIDE = new URL('../../docs/browser-scripts.md', import.meta.url);
const SITE = 'http://localhost:8080';

/** A script, and what it prints, one block after the other. */
const EXAMPLE = /^```js\n([^]*?)^```\n\n```text\n([^]*?)^```$/gm;

const LOGIN = `<form method=post action=/enter><input id=user name=user><input id=password
  type=password><button>Log in</button></form>`;

async function serveShop(t) {
  const elsewhere = await serve(t, { '/map': '<p>a map of another site</p>' });
  const hello = (request) => {
    const user = /user=(\w+)/.exec(request.headers.cookie ?? '')?.[1];
    return user ? `Hello ${user}` : 'Please log in';
  };
  return serve(t, {
    '/': `<title>The shop</title>Welcome <a href=/login>Log in</a> <a href=/prices id=prices>Prices</a>
      <form method=post enctype=multipart/form-data action=/order style="position: absolute; top: 90px">
      <input type=file name=order><input type=submit id=send></form>`,
    '/login': LOGIN,
    '/enter': (request, response) => {
      request.on('data', (body) => {
        const user = new URLSearchParams(body.toString()).get('user');
        response.writeHead(303, { Location: '/account', 'Set-Cookie': `user=${user}` }).end();
      });
    },
    '/account': (request, response) => response.end(hello(request)),
    '/prices': (_, response) => {
      const disposition = 'attachment; filename=prices.csv';
      response.writeHead(200, { 'Content-Disposition': disposition }).end('lamp,40\n');
    },
    '/order': (request, response) => {
      request.on('data', (body) => {
        const [, name, text] = /filename="(.*?)"[^]*?\r\n\r\n([^]*?)\r\n/.exec(body);
        response.end(`Received ${name}: ${text}`);
      });
    },
    '/help': `<button id=chat onclick="window.open('/chat')">chat</button><button id=pay hidden>pay</button>
      <iframe src="${elsewhere.replace('127.0.0.1', 'localhost')}/map"></iframe>`,
    '/chat': '<h1>How can we help?</h1>',
  });
}

test('every example of the guide prints what stands below it', async (t) => {
  const sandbox = new Sandbox(t);
  const origin = await serveShop(t);
  const examples = [...fs.readFileSync(GUIDE, 'utf8').matchAll(EXAMPLE)];
  assert.ok(examples.length >= 6, 'the guide has examples');
  for (const [, script, printed] of examples) {
    const stdout = await sandbox.output(script.replaceAll(SITE, origin));
    assert.equal(stdout.replaceAll(origin, SITE), printed, script);
  }
});
