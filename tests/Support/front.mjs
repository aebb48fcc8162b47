// What lies between a driver and a service: a reverse proxy that speaks HTTP/2, and a road that can
// die silently. The driver talks to the address printed first.
//
//   node front.mjs --to PORT [--certificate FILE --key FILE] [--listen ADDRESS]
//
// With a certificate: HTTP/2 (or 1.1) over TLS, passed on as plain HTTP to PORT of this machine.
// Without: whatever is said is passed on as it is. A command is a line on standard input, answered by a line:
//
//   swallow   the connections open now go on acknowledging, but nothing passes any more: "swallowed N"
//   count     "connections N": how many there have been
//   refuse    HTTP/2: no connection open now has room for a body until one came and was turned away
//             unread, as when a proxy restarts, or for 3 s: bodies that are on their way have none,
//             either. "refusing N"
//   leave     HTTP/2: the connections open now take no further request (GOAWAY), as when a proxy
//             has served as many as it wants to over each: "leaving N"
//   reset     HTTP/2: every stream open now is reset, whatever came of its request: "reset N"
//
// It ends with its input.
import { readFileSync } from 'node:fs'
import http from 'node:http'
import http2 from 'node:http2'
import net from 'node:net'
import readline from 'node:readline'
import { parseArgs } from 'node:util'

const { values: options } = parseArgs({
  options: {
    to: { type: 'string' },
    certificate: { type: 'string' },
    key: { type: 'string' },
    listen: { type: 'string', default: '127.0.0.1' },
  },
})
const LOOPBACK = '127.0.0.1'

function listen(server, address) {
  return new Promise((resolve, reject) => {
    server.once('error', reject)
    server.listen(0, address, () => resolve(server.address().port))
  })
}

/// Passes one request of HTTP/1.1 on, and its reply back.
function passOnOne(agent, request, response) {
  const { method, url, headers } = request
  const upstream = http.request({
    host: LOOPBACK,
    port: Number(options.to),
    agent,
    method,
    path: url,
    headers,
  })
  upstream.on('error', () => response.destroy())
  upstream.on('response', (reply) => {
    response.writeHead(reply.statusCode, reply.rawHeaders)
    reply.pipe(response)
  })
  request.pipe(upstream)
}

/// Passes one request on, and its reply back, piece by piece.
function passOn(agent, stream, headers) {
  const upstream = http.request({
    host: LOOPBACK,
    port: Number(options.to),
    agent,
    method: headers[':method'],
    path: headers[':path'],
    headers: Object.fromEntries(Object.entries(headers).filter(([name]) => !name.startsWith(':'))),
  })
  streams.add(stream)
  stream.on('error', () => {})
  stream.on('close', () => {
    streams.delete(stream)
    upstream.destroy()
  })
  upstream.on('error', () => stream.close(http2.constants.NGHTTP2_INTERNAL_ERROR))
  upstream.on('response', (reply) => {
    if (stream.destroyed) return
    const kept = Object.entries(reply.headers).filter(
      ([name]) => !['connection', 'keep-alive', 'transfer-encoding'].includes(name),
    )
    stream.respond({ ':status': reply.statusCode, ...Object.fromEntries(kept) })
    reply.pipe(stream)
  })
  stream.pipe(upstream)
}

async function startProxy() {
  const agent = new http.Agent({ keepAlive: true })
  const proxy = http2.createSecureServer({
    cert: readFileSync(options.certificate),
    key: readFileSync(options.key),
    allowHTTP1: true,
  })
  proxy.on('request', (request, response) => {
    if (request.httpVersionMajor === 1) passOnOne(agent, request, response)
  })
  proxy.on('session', (session) => {
    sessions.add(session)
    session.on('close', () => sessions.delete(session))
  })
  proxy.on('stream', (stream, headers) => {
    if (!refusing.has(stream.session) || stream.endAfterHeaders)
      return passOn(agent, stream, headers)
    makeRoom(stream.session)
    stream.on('error', () => {})
    stream.close(http2.constants.NGHTTP2_REFUSED_STREAM)
  })
  proxy.on('sessionError', () => {})
  return listen(proxy, LOOPBACK)
}

function makeRoom(session) {
  if (refusing.delete(session) && !session.destroyed) session.settings({ initialWindowSize: 65535 })
}

const sessions = new Set()
const streams = new Set()
const refusing = new Set()
const target = options.certificate ? await startProxy() : Number(options.to)
const roads = new Set()
let count = 0

const relay = net.createServer({ allowHalfOpen: true }, (near) => {
  const far = net.connect(target, LOOPBACK)
  const road = { near, far, dead: false }
  roads.add(road)
  ++count
  for (const [from, to] of [
    [near, far],
    [far, near],
  ]) {
    from.setNoDelay(true)
    from.on('data', (bytes) => {
      if (road.dead || to.destroyed || to.write(bytes)) return
      from.pause()
      to.once('drain', () => from.resume())
    })
    from.on('end', () => {
      if (!road.dead) to.end()
      else if (from === near) near.end()
    })
    from.on('error', () => {})
    from.on('close', () => {
      roads.delete(road)
      if (road.dead && from === far) return
      to.destroy()
    })
  }
})

console.log(`listening ${await listen(relay, options.listen)}`)

for await (const command of readline.createInterface({ input: process.stdin })) {
  if (command === 'swallow') {
    const open = [...roads].filter((road) => !road.dead)
    for (const road of open) road.dead = true
    console.log(`swallowed ${open.length}`)
  } else if (command === 'refuse') {
    for (const session of sessions) {
      session.settings({ initialWindowSize: 0 })
      refusing.add(session)
      setTimeout(makeRoom, 3000, session)
    }
    console.log(`refusing ${refusing.size}`)
  } else if (command === 'reset') {
    const open = [...streams]
    for (const stream of open) stream.close(http2.constants.NGHTTP2_INTERNAL_ERROR)
    console.log(`reset ${open.length}`)
  } else if (command === 'leave') {
    for (const session of sessions) session.goaway()
    console.log(`leaving ${sessions.size}`)
  } else if (command === 'count') {
    console.log(`connections ${count}`)
  } else {
    console.log(`unknown command: ${command}`)
  }
}
process.exit(0)
