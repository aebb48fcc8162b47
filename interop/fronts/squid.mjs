import { execFileSync } from 'node:child_process'
import { randomUUID } from 'node:crypto'
import { chmodSync, mkdirSync, writeFileSync } from 'node:fs'
import { setTimeout as sleep } from 'node:timers/promises'
import { startNginx } from './nginx.mjs'
import { freePort, startServer } from './servers.mjs'

const kTryAgain = /^server unreachable, retrying: /
const kPollFailed = /^poll failed \(.*retrying in \d+s$/
/** A driver asks no proxy for addresses of its own computer; only squid knows this name. */
const kName = 'verdo.test'
const kUser = 'ann'

/**
 * Starts a squid as the user's proxy, and behind it an nginx as the front of the service: with
 * `tls`, it is reached through a tunnel (CONNECT). `options` are lines of squid's configuration.
 */
async function startSquid(context, { tls = true, options = '', login = true, password } = {}) {
  const { processes, directory } = context
  const front = await startNginx(context, { tls, server: 'client_max_body_size 0;' })
  const port = await freePort()
  const own = `${directory}/squid` // squid works as another user
  mkdirSync(own)
  chmodSync(own, 0o777)
  const secret = randomUUID()
  const hash = execFileSync('openssl', ['passwd', '-apr1', '-stdin'], { input: secret })
  writeFileSync(`${own}/users`, `${kUser}:${hash}`)
  writeFileSync(`${own}/hosts`, `127.0.0.1 ${kName}\n`)
  const file = `${own}/squid.conf`
  writeFileSync(
    file,
    `
http_port 127.0.0.1:${port}
pid_filename ${own}/squid.pid
cache_log ${own}/squid.log
access_log none
coredump_dir ${own}
cache deny all
hosts_file ${own}/hosts
shutdown_lifetime 0 seconds
visible_hostname localhost
auth_param basic program /usr/lib/squid/basic_ncsa_auth ${own}/users
auth_param basic children 2 startup=1
acl known proxy_auth REQUIRED
${options}
http_access allow ${login ? 'known' : 'all'}
http_access deny all
`,
  )
  const command = ['-N', '-f', file]
  const start = () => startServer(processes, port, '/usr/sbin/squid', command)
  let child = await start()
  const user = login ? `${kUser}:${password ?? secret}@` : ''
  const proxy = `http://${user}127.0.0.1:${port}`
  return {
    ...front,
    url: `${tls ? 'https' : 'http'}://${kName}:${front.port}`,
    options: [...front.options, ...(tls ? [] : ['--insecure'])],
    env: tls ? { https_proxy: proxy } : { http_proxy: proxy },
    secret: password ?? secret,
    reconfigure: () => child.kill('SIGHUP'),
    restart: async () => {
      await processes.stop('/usr/sbin/squid')
      child = await start()
    },
  }
}

const row = (name, settings, rest = {}) => ({
  name,
  start: (context) => startSquid(context, settings),
  ...rest,
})

const outages = { repeats: true, allowed: [kTryAgain, kPollFailed] }

export const rows = [
  row('tunnel, password', {}),
  row('clear, password', { tls: false }),
  row(
    'tunnel, cut when silent for 7 s',
    { options: 'read_timeout 7 seconds' },
    { idle: true, allowed: [kPollFailed], wanted: [/ends long polls after \d+ s/] },
  ),
  row(
    'clear, polls cut after 7 s',
    { tls: false, options: 'read_timeout 7 seconds' },
    { idle: true, allowed: [kPollFailed], wanted: [/ends long polls after \d+ s/] },
  ),
  row('clear, idle connections closed after 1 s', {
    tls: false,
    options: 'client_idle_pconn_timeout 1 second\nserver_idle_pconn_timeout 1 second',
  }),
  row(
    'tunnel, reconfigured every second',
    {},
    {
      every: 1000,
      slow: 300,
      disturb: ({ front }) => front.reconfigure(),
      ...outages,
    },
  ),
  row(
    'tunnel, restarted three times',
    {},
    {
      slow: 300,
      disturb: async ({ front }) => {
        for (let i = 0; i < 3; ++i) {
          await front.restart()
          await sleep(2000)
        }
      },
      ...outages,
    },
  ),
  row('tunnel, wrong password', { password: 'wrong-password' }, { refused: /407/ }),
  row('clear, wrong password', { tls: false, password: 'wrong-password' }, { refused: /407/ }),
  row('tunnel, denied', { login: false, options: 'http_access deny all' }, { refused: /403/ }),
  row(
    'clear, denied',
    { tls: false, login: false, options: 'http_access deny all' },
    { refused: /403/ },
  ),
]
