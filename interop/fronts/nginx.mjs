import { writeFileSync } from 'node:fs'
import { setTimeout as sleep } from 'node:timers/promises'
import { freePort, startServer } from './servers.mjs'

const kTryAgain = /^server unreachable, retrying: /
const kPollFailed = /^poll failed \(.*retrying in \d+s$/

/**
 * Starts an nginx in front of a service. `server` and `http` are what is set there beside the rest;
 * `global` is what is set outside of both.
 */
export async function startNginx(
  { processes, directory, service, certificate, key },
  { tls = true, http = '', server = '', global = '' },
) {
  const port = await freePort()
  const file = `${directory}/nginx.conf`
  writeFileSync(
    file,
    `
    daemon off; worker_processes 1; pid ${directory}/nginx.pid; error_log ${directory}/nginx.log;
    ${global}
    events { worker_connections 512; }
    http {
      access_log off;
      client_body_temp_path ${directory}/body; proxy_temp_path ${directory}/proxy;
      fastcgi_temp_path ${directory}/f; uwsgi_temp_path ${directory}/u; scgi_temp_path ${directory}/s;
      ${http}
      server {
        listen 127.0.0.1:${port} ${tls ? 'ssl http2' : ''};
        ${tls ? `ssl_certificate ${certificate}; ssl_certificate_key ${key};` : ''}
        ${server}
        location / { proxy_pass ${service.url}; proxy_set_header Host 127.0.0.1; }
      }
    }`,
  )
  const child = await startServer(processes, port, '/usr/sbin/nginx', ['-c', file])
  return {
    port,
    url: `${tls ? 'https' : 'http'}://127.0.0.1:${port}`,
    options: tls ? ['--ca-cert', certificate] : [],
    // The provider's certificate must be one that the system trusts: it is asked in clear, or directly.
    provider: tls ? service.provider : service.provider.replace(/:\d+/, `:${port}`),
    signal: (name) => child.kill(name),
  }
}

const row = (name, settings, rest = {}) => ({
  name,
  start: (context) => startNginx(context, settings),
  ...rest,
})

const reloading = { every: 500, slow: 300, disturb: ({ front }) => front.signal('SIGHUP') }

const cutPolls = { wanted: [/ends long polls after \d+ s; polling with a wait of \d+ s/] }

export const rows = [
  row('HTTP/2', {}),
  row('HTTP/1.1', { tls: false }),
  row('HTTP/2, bodies up to 16 KB', { server: 'client_max_body_size 16k;' }),
  row('HTTP/1.1, bodies up to 16 KB', { tls: false, server: 'client_max_body_size 16k;' }),
  row('HTTP/2, replies in gzip, no buffering', {
    http: 'gzip on; gzip_types application/json application/octet-stream; gzip_min_length 1; gzip_proxied any;',
    server: 'proxy_buffering off; proxy_request_buffering off;',
  }),
  row('HTTP/1.1, replies in gzip, no buffering', {
    tls: false,
    http: 'gzip on; gzip_types application/json application/octet-stream; gzip_min_length 1; gzip_proxied any;',
    server: 'proxy_buffering off; proxy_request_buffering off;',
  }),
  row(
    'HTTP/2, polls cut after 7 s',
    { server: 'proxy_read_timeout 7s;' },
    { idle: true, allowed: [kPollFailed], ...cutPolls },
  ),
  row(
    'HTTP/1.1, polls cut after 7 s',
    { tls: false, server: 'proxy_read_timeout 7s;' },
    { idle: true, allowed: [kPollFailed], ...cutPolls },
  ),
  row('HTTP/2, 5 requests a connection, 2 s', {
    server: 'keepalive_requests 5; keepalive_timeout 2s;',
  }),
  row('HTTP/1.1, 5 requests a connection, 2 s', {
    tls: false,
    server: 'keepalive_requests 5; keepalive_timeout 2s;',
  }),
  row('HTTP/2, 2 streams at once', { server: 'http2_max_concurrent_streams 2;' }),
  row('HTTP/2, reload twice a second', {}, reloading),
  row('HTTP/1.1, reload twice a second', { tls: false }, reloading),
  row(
    'HTTP/2, reload that breaks off',
    { global: 'worker_shutdown_timeout 200ms;' },
    { ...reloading, every: 2000, repeats: true, allowed: [kTryAgain, kPollFailed] },
  ),
  row(
    'HTTP/2, 20 requests a second (429)',
    {
      http: 'limit_req_zone all zone=all:1m rate=20r/s; limit_req_status 429;',
      server: 'limit_req zone=all burst=10 nodelay;',
    },
    { allowed: [kTryAgain], lease: 10 },
  ),
  row(
    'HTTP/2, service away for 4 s (502)',
    {},
    {
      disturb: async ({ service }) => {
        await service.refuseConnects(4)
        await sleep(4500)
      },
      repeats: true,
      allowed: [kTryAgain, kPollFailed],
      wanted: [/ 502: /],
    },
  ),
]
