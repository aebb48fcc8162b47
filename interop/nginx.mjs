// Puts a real nginx, with its usual limit of 1 MB for bodies, between a driver and its service, and
// looks whether a job's output arrives whole: over HTTP/2 with TLS and over HTTP/1.1 in clear.
//
// Usage: node interop/nginx.mjs PROGRAM_DIRECTORY WORK_DIRECTORY
import { spawn } from 'node:child_process'
import { writeFileSync } from 'node:fs'
import { createServer } from 'node:net'
import { setTimeout as sleep } from 'node:timers/promises'
import { Processes } from '../../demo/processes.mjs'
import { Service } from '../../demo/service.mjs'

const [programs, directory] = process.argv.slice(2)
const kLines = 200_000 // of 100 bytes: 20 MB, in posts of up to 8 MiB
const kLongLine = 3_000_000 // bytes

async function freePort() {
  const server = createServer().listen(0, '127.0.0.1')
  await new Promise((resolve) => server.once('listening', resolve))
  const { port } = server.address()
  await new Promise((resolve) => server.close(resolve))
  return port
}

async function startNginx(name, target, encrypted) {
  const port = await freePort()
  const tls = `ssl_certificate ${directory}/certificate.pem; ssl_certificate_key ${directory}/key.pem;`
  const file = `${directory}/${name}.conf`
  writeFileSync(
    file,
    `
    daemon off; pid ${directory}/${name}.pid; error_log ${directory}/${name}.log;
    events {}
    http {
      access_log off;
      client_body_temp_path ${directory}/${name}-body; proxy_temp_path ${directory}/${name}-proxy;
      fastcgi_temp_path ${directory}/f; uwsgi_temp_path ${directory}/u; scgi_temp_path ${directory}/s;
      server {
        listen 127.0.0.1:${port} ${encrypted ? 'ssl http2' : ''};
        ${encrypted ? tls : ''}
        location / { proxy_pass ${target}; proxy_read_timeout 90s; proxy_set_header Host 127.0.0.1; }
      }
    }`,
  )
  const child = spawn('nginx', ['-c', file], { stdio: 'inherit' })
  await sleep(500)
  return { child, url: `${encrypted ? 'https' : 'http'}://127.0.0.1:${port}` }
}

async function allLines(service, id) {
  const lines = []
  for (;;) {
    const page = await service.linesFrom(id, lines.length)
    if (page.length === 0) return lines
    lines.push(...page)
  }
}

async function run(encrypted) {
  const name = encrypted ? 'h2' : 'h1'
  const processes = new Processes()
  const service = await Service.start(processes, `${programs}/verdo-local-service`, 'key')
  const nginx = await startNginx(name, service.url, encrypted)
  const options = ['--server', nginx.url, '--exec', 'sh', '--no-sweep', '--serve-jobs', '1']
  if (encrypted) options.push('--ca-cert', `${directory}/certificate.pem`)
  try {
    const payload = `seq -f '%099.0f' ${kLines}; head -c ${kLongLine} /dev/zero | tr '\\0' y; echo`
    const job = await service.addJob({ label: 'big', payload })
    const begin = performance.now()
    processes.start(name, `${programs}/verdo-driver`, options, {
      env: { ...process.env, VERDO_DRIVER_TOKEN: service.token },
      show: true,
    })
    const ended = await service.waitUntilDone(job)
    const seconds = (performance.now() - begin) / 1000
    const lines = await allLines(service, job)
    const numbered = lines.slice(0, kLines)
    const wrong =
      numbered.filter((line, i) => Number(line) !== i + 1).length + (kLines - numbered.length)
    const rest = lines.slice(kLines).join('')
    const whole = rest === 'y'.repeat(kLongLine)
    return {
      name: encrypted ? 'HTTP/2' : 'HTTP/1.1',
      exit: ended.exit_code,
      wrong,
      whole,
      seconds,
      pieces: lines.length - kLines,
      posts: await service.requestCount('lines'),
    }
  } finally {
    nginx.child.kill()
    await processes.stopAll()
  }
}

let failed = false
for (const encrypted of [true, false]) {
  const row = await run(encrypted)
  failed ||= row.exit !== 0 || row.wrong !== 0 || !row.whole
  console.log(
    `${row.name.padEnd(9)} exit ${row.exit}, ${row.seconds.toFixed(1)} s, ${row.posts} posts arrived; of ${kLines} lines ` +
      `${row.wrong} lost, doubled or out of place; the long line ${row.whole ? 'whole' : 'BROKEN'} in ${row.pieces} pieces`,
  )
}
process.exit(failed ? 3 : 0)
