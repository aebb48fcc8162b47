// Lets the connections of drivers die in several ways, all at the same time, and measures how the
// drivers come back. Runs in a network namespace of its own, as root.
//
// Usage: node interop/network.mjs PROGRAM_DIRECTORY CERTIFICATE_DIRECTORY
import { execFileSync, spawn } from 'node:child_process'
import { createInterface } from 'node:readline'
import { setTimeout as sleep } from 'node:timers/promises'
import { fileURLToPath } from 'node:url'
import { Processes } from '../demo/processes.mjs'
import { Service } from '../demo/service.mjs'

const [programs, certificates] = process.argv.slice(2)
const kLines = 300
const kLineSeconds = 0.25 // the job prints for 75 s: longer than any time-out here
const kQuietSeconds = 8 // before the cut, so that polls and posts are on their way
const kLossLimit = 20 // seconds
const kPollLimit = 45 + 5 // seconds: wait and margin of a poll, or a post's time-out, and a pause
const kGiveUp = 120 // seconds

/** The road to a service (tests/Support/front.mjs). */
class Front {
  static async start(port, encrypted) {
    const script = fileURLToPath(new URL('../tests/Support/front.mjs', import.meta.url))
    const given = [
      '--certificate',
      `${certificates}/certificate.pem`,
      '--key',
      `${certificates}/key.pem`,
    ]
    const child = spawn(process.execPath, [script, '--to', port, ...(encrypted ? given : [])], {
      stdio: ['pipe', 'pipe', 'inherit'],
    })
    const front = new Front()
    front.child = child
    front.answers = createInterface({ input: child.stdout })[Symbol.asyncIterator]()
    front.port = await front.#answer()
    front.url = `${encrypted ? 'https' : 'http'}://127.0.0.1:${front.port}`
    return front
  }

  async #answer() {
    return Number((await this.answers.next()).value.split(' ').at(-1))
  }

  async ask(command) {
    this.child.stdin.write(`${command}\n`)
    return this.#answer()
  }
}

/** The packets of the connections to this port that are open now are lost from now on. */
function lose(port) {
  const open = execFileSync('ss', ['-Htn', 'state', 'established', `dport = :${port}`], {
    encoding: 'utf8',
  })
  const ports = open
    .trim()
    .split('\n')
    .filter(Boolean)
    .map((line) => line.trim().split(/\s+/)[2].split(':').at(-1))
  if (ports.length === 0) throw new Error('the driver has no connection')
  execFileSync('nft', ['add', 'element', 'inet', 'verdo', 'dead', `{ ${ports.join(', ')} }`])
}

execFileSync('nft', ['-f', '-'], {
  input: `table inet verdo {
    set dead { type inet_service; }
    chain arriving {
      type filter hook input priority 0
      tcp dport @dead drop
      tcp sport @dead drop
    }
  }`,
})

const processes = new Processes()
const secondsSince = (begin) => (performance.now() - begin) / 1000

/** One driver, its service and the road between them, and the death of that road. */
async function run({ name, encrypted, relay, busy }) {
  const own = new Processes()
  const service = await Service.start(own, `${programs}/verdo-local-service`, 'key')
  const front = await Front.start(new URL(service.url).port, encrypted)
  const options = ['--server', front.url, '--exec', 'sh', '--no-sweep', '--max-jobs', '2']
  if (encrypted) options.push('--ca-cert', `${certificates}/certificate.pem`)
  processes.start(name, `${programs}/verdo-driver`, options, {
    env: { ...process.env, VERDO_DRIVER_TOKEN: service.token },
    show: true,
  })
  try {
    const payload = `i=1; while [ $i -le ${kLines} ]; do echo "line $i"; i=$((i + 1)); sleep ${kLineSeconds}; done`
    const job = busy ? await service.addJob({ label: 'printer', payload }) : null
    if (job) await service.waitForLines(job)
    await sleep(kQuietSeconds * 1000)

    const before = await front.ask('count')
    const polls = await service.requestCount('poll')
    const begin = performance.now()
    if (relay) await front.ask('swallow')
    else lose(front.port)
    const until = async (holds) => {
      while (!(await holds()) && secondsSince(begin) < kGiveUp) await sleep(50)
      return secondsSince(begin)
    }
    const [connected, polled] = await Promise.all([
      until(async () => (await front.ask('count')) > before),
      until(async () => (await service.requestCount('poll')) > polls),
    ])
    const row = { name, connected, polled, limit: relay ? kPollLimit : kLossLimit }
    if (job) {
      const ended = await service.waitUntilDone(job)
      const lines = await service.lines(job)
      const wanted = Array.from({ length: kLines }, (_, i) => `line ${i + 1}`)
      row.exit = ended.exit_code
      row.lost = wanted.filter((line) => !lines.includes(line)).length
      row.repeated = lines.length - new Set(lines).size
    }
    return row
  } finally {
    await processes.stop(name)
    front.child.stdin.end()
    await own.stopAll()
  }
}

const cases = []
for (const encrypted of [true, false]) {
  const protocol = encrypted ? 'HTTP/2' : 'HTTP/1.1'
  cases.push({ name: `${protocol}, packets lost, idle`, encrypted, relay: false, busy: false })
  cases.push({
    name: `${protocol}, packets lost, job running`,
    encrypted,
    relay: false,
    busy: true,
  })
  cases.push({ name: `${protocol}, relay acknowledges, idle`, encrypted, relay: true, busy: false })
  cases.push({
    name: `${protocol}, relay acknowledges, job running`,
    encrypted,
    relay: true,
    busy: true,
  })
}
const outcomes = await Promise.allSettled(cases.map(run))

const rows = [['case', 'new connection', 'new poll', 'limit', 'job', 'lines lost', 'repeated']]
let failed = false
outcomes.forEach(({ value: row, reason }, index) => {
  if (!row) {
    failed = true
    rows.push([cases[index].name, reason.message])
    return
  }
  const good =
    row.connected <= row.limit && row.polled <= row.limit && !row.lost && (row.exit ?? 0) === 0
  failed ||= !good
  rows.push([
    row.name,
    `${row.connected.toFixed(1)} s`,
    `${row.polled.toFixed(1)} s`,
    `${row.limit} s`,
    row.exit === undefined ? '-' : `exit ${row.exit}`,
    row.lost ?? '-',
    row.repeated ?? '-',
    good ? '' : 'MISSED',
  ])
})
const widths = rows[0].map((_, column) =>
  Math.max(...rows.map((row) => String(row[column] ?? '').length)),
)
for (const row of rows)
  console.log(
    row
      .map((cell, i) => String(cell).padEnd(widths[i] ?? 0))
      .join('  ')
      .trimEnd(),
  )
process.exit(failed ? 3 : 0)
