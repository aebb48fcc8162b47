// Puts real proxies between a driver and its service, runs jobs of all sorts through each, does to
// the proxy what operators do, and accounts for every line that the jobs have printed.
//
// Usage: node interop/fronts.mjs PROGRAM_DIRECTORY WORK_DIRECTORY [nginx|haproxy|squid]...
// With VERDO_ROWS, a regular expression, only the rows whose front and name it matches.
import { chmodSync, mkdirSync } from 'node:fs'
import { setTimeout as sleep } from 'node:timers/promises'
import { Processes } from '../demo/processes.mjs'
import { Service } from '../demo/service.mjs'
import { Jobs, holdsWithin } from './fronts/jobs.mjs'
import { rows as haproxy } from './fronts/haproxy.mjs'
import { rows as nginx } from './fronts/nginx.mjs'
import { rows as squid } from './fronts/squid.mjs'
import { Warnings, kOrdinary } from './fronts/warnings.mjs'

const kFronts = { nginx, haproxy, squid }
const kAtOnce = 4 // rows; most of their time is waiting
const kRowLimit = 120_000 // ms
const kLearnLimit = 45_000 // ms for what an idle driver learns of its polls
const kLateJobLimit = 10 // s from queued to leased, for a job that comes to an idle driver
const kStopLimit = 10 // s
const kProviderKey = 'interop-key'

const [programs, directory, ...named] = process.argv.slice(2)
const unknown = named.find((name) => !kFronts[name])
if (unknown) {
  console.error(`interop/fronts: no front is called ${unknown}: ${Object.keys(kFronts).join(', ')}`)
  process.exit(2)
}
const shown = new RegExp(process.env.VERDO_ROWS ?? '')

function startDriver(processes, { service, front, home, warnings }) {
  const options = ['--server', front.url, '--exec', 'sh', '--no-sweep', '--max-jobs', '12']
  options.push('--llm-base', front.provider, '--color', 'never', ...front.options)
  return processes.start('driver', `${programs}/verdo-driver`, options, {
    env: {
      PATH: process.env.PATH,
      HOME: home,
      VERDO_DRIVER_TOKEN: service.token,
      VERDO_LLM_API_KEY: kProviderKey,
      ...front.env,
    },
    show: (line) => warnings.hear(line),
  })
}

/** What is wrong with a driver that its proxy lets through nothing. */
async function refusal(row, driver, front, warnings) {
  const status = await driver.ended
  const faults = []
  if (status !== 1) faults.push(`the driver ended with status ${status}`)
  if (warnings.count(row.refused) === 0) faults.push('the log does not say why')
  if (warnings.lines.some((line) => line.includes(front.secret)))
    faults.push('the log says the password')
  return faults
}

/** Leaves the driver without a job until it has polled in vain, and then gives it one. */
async function lateJob(row, service, warnings) {
  const polls = await service.requestCount('poll')
  const learnt = async () =>
    row.wanted
      ? row.wanted.every((pattern) => warnings.count(pattern) > 0)
      : (await service.requestCount('poll')) >= polls + 3
  if (!(await holdsWithin(kLearnLimit, learnt))) return null
  const job = await service.addJob({ label: 'late', kind: 'run', payload: 'true' })
  const begin = performance.now()
  await service.waitUntilLeased(job)
  const seconds = (performance.now() - begin) / 1000
  await service.waitUntilDone(job)
  return seconds
}

async function work(row, context) {
  const { service, warnings, processes } = context
  const jobs = new Jobs(service)
  const begin = performance.now()
  await jobs.queue({ fileFirst: row.repeats })
  let isDone = false
  const disturbing = (async () => {
    do await row.disturb?.(context)
    while (row.every && !(await holdsWithin(row.every, () => isDone)))
  })()
  // What is done to the service's own road is over first: the control interface is on it.
  if (!row.every) await disturbing
  await jobs.cancelEndless()
  await jobs.waitForAll()
  isDone = true
  await disturbing
  const seconds = (performance.now() - begin) / 1000
  const { tally, faults } = jobs
  const requests = {}
  for (const endpoint of ['poll', 'lines', 'complete']) {
    requests[endpoint] = await service.requestCount(endpoint)
  }
  let late
  if (row.idle) {
    late = await lateJob(row, service, warnings)
    if (late === null) faults.push('no sign of what polls meet')
    else if (late > kLateJobLimit) faults.push(`a late job waited ${late.toFixed(0)} s`)
  }
  const stopping = performance.now()
  const status = await processes.stop('driver')
  const stopped = (performance.now() - stopping) / 1000
  await jobs.account()
  if (tally.lost > 0) faults.push(`${tally.lost} lines lost`)
  if (tally.misplaced > 0) faults.push(`${tally.misplaced} lines out of place`)
  if (tally.repeated > 0 && !row.repeats) faults.push(`${tally.repeated} lines doubled`)
  const known = [...kOrdinary, ...(row.allowed ?? []), ...(row.wanted ?? [])]
  for (const line of warnings.lines) {
    if (!known.some((pattern) => pattern.test(line)))
      faults.push(`unexpected: ${line.slice(0, 200)}`)
  }
  for (const pattern of row.wanted ?? []) {
    if (warnings.count(pattern) === 0) faults.push(`no warning like ${pattern}`)
  }
  if (status !== 130) faults.push(`the driver ended with status ${status}`)
  if (stopped > kStopLimit) faults.push(`the driver took ${stopped.toFixed(0)} s to stop`)
  return { seconds, tally, requests, late, faults }
}

const running = new Set()
for (const signal of ['SIGTERM', 'SIGINT']) {
  process.once(signal, async () => {
    await Promise.all([...running].map((processes) => processes.stopAll()))
    process.exit(1)
  })
}

async function run(row, number) {
  const processes = new Processes()
  running.add(processes)
  const warnings = new Warnings()
  const own = `${directory}/${number}`
  const home = `${own}/home`
  mkdirSync(home, { recursive: true })
  chmodSync(own, 0o755) // proxies work as other users
  const late = new AbortController()
  try {
    const service = await Service.start(processes, `${programs}/verdo-local-service`, kProviderKey)
    if (row.lease) await service.setLease(row.lease)
    if (row.slow) await service.addFault({ endpoint: 'lines', delay_ms: row.slow })
    const front = await row.start({
      processes,
      service,
      directory: own,
      certificate: `${directory}/certificate.pem`,
      key: `${directory}/key.pem`,
    })
    const driver = startDriver(processes, { service, front, home, warnings })
    const outcome = row.refused
      ? refusal(row, driver, front, warnings).then((faults) => ({ faults }))
      : work(row, { service, front, warnings, processes })
    const timeout = sleep(kRowLimit, null, { signal: late.signal }).then(() => {
      throw new Error(`not done after ${kRowLimit / 1000} s`)
    })
    timeout.catch(() => {})
    return { warnings, ...(await Promise.race([outcome, timeout])) }
  } catch (error) {
    return { warnings, faults: [error.message] }
  } finally {
    late.abort()
    await processes.stopAll()
    running.delete(processes)
  }
}

const rows = Object.entries(kFronts)
  .filter(([name]) => named.length === 0 || named.includes(name))
  .flatMap(([front, list]) => list.map((row) => ({ front, ...row })))
  .filter((row) => shown.test(`${row.front} ${row.name}`))
const results = new Array(rows.length)
let next = 0
const begin = performance.now()
await Promise.all(
  Array.from({ length: kAtOnce }, async () => {
    while (next < rows.length) {
      const number = next++
      results[number] = await run(rows[number], number)
    }
  }),
)

const kHead = 'front|what|lines|lost|doubled|misplaced|polls|posts|done|late job|'
const table = [kHead.split('|')]
results.forEach(({ tally, requests, seconds, late, faults }, i) => {
  table.push([
    rows[i].front,
    rows[i].name,
    ...(tally
      ? [
          tally.wanted,
          tally.lost,
          tally.repeats ? `${tally.repeated} in ${tally.repeats} posts` : 0,
          tally.misplaced,
          requests.poll,
          requests.lines + requests.complete,
          `${seconds.toFixed(1)} s`,
          late === undefined || late === null ? '-' : `${late.toFixed(1)} s`,
        ]
      : Array(8).fill('-')),
    faults.length === 0 ? '' : 'OFF',
  ])
})
const widths = table[0].map((_, column) =>
  Math.max(...table.map((row) => String(row[column]).length)),
)
for (const row of table) {
  console.log(
    row
      .map((cell, i) => String(cell).padEnd(widths[i]))
      .join('  ')
      .trimEnd(),
  )
}
console.log(`\nin ${((performance.now() - begin) / 1000).toFixed(0)} s; warnings:`)
results.forEach(({ warnings }, i) => {
  for (const [kind, count] of warnings.kinds()) {
    console.log(`${rows[i].front}, ${rows[i].name}: ${count} × ${kind}`)
  }
})
results.forEach(({ faults }, i) => {
  for (const fault of new Set(faults))
    console.log(`OFF ${rows[i].front}, ${rows[i].name}: ${fault}`)
})
process.exit(results.some(({ faults }) => faults.length > 0) ? 3 : 0)
