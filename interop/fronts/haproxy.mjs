import { readFileSync, writeFileSync } from 'node:fs'
import { connect } from 'node:net'
import { setTimeout as sleep } from 'node:timers/promises'
import { freePort, startServer } from './servers.mjs'

const kTryAgain = /^server unreachable, retrying: /
const kPollFailed = /^poll failed \(.*retrying in \d+s$/

/** Starts a haproxy in front of a service; what is given is set beside, or in place of, the rest. */
async function startHaproxy(
  { processes, directory, service, certificate, key },
  { alpn = 'h2,http/1.1', global = '', defaults = '' },
) {
  const port = await freePort()
  const file = `${directory}/haproxy.cfg`
  const socket = `${directory}/haproxy.sock`
  const pair = `${directory}/pair.pem`
  writeFileSync(pair, readFileSync(certificate, 'utf8') + readFileSync(key, 'utf8'), {
    mode: 0o600,
  })
  writeFileSync(
    file,
    `
global
  maxconn 512
  stats socket ${socket} mode 600 level admin expose-fd listeners
  ${global}
defaults
  mode http
  timeout connect 2s
  timeout client 60s
  timeout server 60s
  ${defaults}
frontend front
  bind 127.0.0.1:${port} ${alpn ? `ssl crt ${pair} alpn ${alpn}` : ''}
  default_backend back
backend back
  http-request set-header Host 127.0.0.1
  server service ${new URL(service.url).host}
`,
  )
  const child = await startServer(processes, port, '/usr/sbin/haproxy', ['-W', '-db', '-f', file])
  return {
    url: `${alpn ? 'https' : 'http'}://127.0.0.1:${port}`,
    options: alpn ? ['--ca-cert', certificate] : [],
    provider: alpn ? service.provider : service.provider.replace(/:\d+/, `:${port}`),
    signal: (name) => child.kill(name),
    command: (text) =>
      new Promise((resolve, reject) => {
        connect(socket, function () {
          this.end(`${text}\n`)
        })
          .on('error', reject)
          .on('close', resolve)
          .resume()
      }),
  }
}

const row = (name, settings, rest = {}) => ({
  name,
  start: (context) => startHaproxy(context, settings),
  ...rest,
})

const reloading = { every: 1000, slow: 300, disturb: ({ front }) => front.signal('SIGUSR2') }

export const rows = [
  row('HTTP/2', {}),
  row('HTTP/1.1 in TLS', { alpn: 'http/1.1' }),
  row('HTTP/1.1, a connection each (httpclose)', { alpn: '', defaults: 'option httpclose' }),
  row(
    'HTTP/2, 7 s for replies, 3 s idle',
    { defaults: 'timeout server 7s\n  timeout client 3s\n  timeout http-keep-alive 1s' },
    { idle: true, allowed: [kPollFailed], wanted: [/ends long polls after \d+ s/] },
  ),
  row(
    'HTTP/1.1, 7 s for replies, 3 s idle',
    {
      alpn: '',
      defaults: 'timeout server 7s\n  timeout client 3s\n  timeout http-keep-alive 1s',
    },
    { idle: true, allowed: [kPollFailed], wanted: [/ends long polls after \d+ s/] },
  ),
  row('HTTP/2, reload every second', {}, reloading),
  row(
    'HTTP/2, reload that breaks off',
    { global: 'hard-stop-after 200ms' },
    { ...reloading, every: 2000, repeats: true, allowed: [kTryAgain, kPollFailed] },
  ),
  row(
    'HTTP/2, service marked down for 4 s (503)',
    {},
    {
      disturb: async ({ front }) => {
        await front.command('set server back/service state maint')
        await front.command('shutdown sessions server back/service')
        await sleep(4000)
        await front.command('set server back/service state ready')
      },
      repeats: true,
      allowed: [kTryAgain, kPollFailed],
      wanted: [/ 503: /],
    },
  ),
]
