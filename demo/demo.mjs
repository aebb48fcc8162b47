// Starts the local service and the driver, gives the driver one job of each sort, shows what they
// print as it arrives, and checks how each job ended.
//
// Usage: node demo/demo.mjs PROGRAM_DIRECTORY
import { execFileSync } from 'node:child_process'
import { randomUUID } from 'node:crypto'
import { mkdtempSync, readFileSync, rmSync } from 'node:fs'
import { tmpdir } from 'node:os'
import { join } from 'node:path'
import { servePage } from './page-server.mjs'
import { Processes } from './processes.mjs'
import { Service } from './service.mjs'
import { resultTable } from './table.mjs'

const programs = process.argv[2]
const source = (name) => readFileSync(new URL(name, import.meta.url), 'utf8')
const script = (name, values = {}) =>
  Object.entries(values).reduce((text, [key, value]) => text.replaceAll(key, value), source(name))

const processes = new Processes()
const failures = []
// A browser of the demo's own, apart from one that the user may have running.
const runtime = mkdtempSync(join(tmpdir(), 'verdo-demo-'))
process.env.XDG_RUNTIME_DIR = runtime

async function main() {
  const providerKey = randomUUID()
  const service = await Service.start(processes, `${programs}/verdo-local-service`, providerKey)
  const page = await servePage(source('page.html'))
  console.log(`local service on ${service.url}`)
  processes.start(
    'driver',
    `${programs}/verdo-driver`,
    [
      '--server',
      service.url,
      '--llm-base',
      service.provider,
      '--check-llm',
      '--exec',
      'verdo-browser nodejs',
      '--extra-path',
      programs,
      '--color',
      process.stdout.isTTY ? 'always' : 'never',
    ],
    {
      env: { ...process.env, VERDO_DRIVER_TOKEN: service.token, VERDO_LLM_API_KEY: providerKey },
      show: true,
    },
  )

  const rows = []
  const run = async (title, job, check, meanwhile = async () => {}) => {
    const id = await service.addJob(job)
    const shown = service.showLines(id, `job ${id} ${title}`)
    await meanwhile(id)
    const ended = await service.waitUntilDone(id)
    await shown
    if (!check(ended, await service.lines(id))) {
      failures.push(`${title}: unexpected end, exit ${ended.exit_code}, error ${ended.error}`)
    }
    rows.push({ title, ...ended })
  }
  const succeeded = (lastLine) => (job, lines) =>
    job.exit_code === 0 && job.error === null && lines.at(-1) === lastLine

  await Promise.all([
    run(
      'reads a page',
      {
        label: 'reader',
        task_space: 'demo-read',
        payload: script('jobs/read-page.js', { __PAGE__: page }),
      },
      succeeded('links: 2'),
    ),
    run(
      'reads a staged file',
      {
        label: 'files',
        payload: script('jobs/read-file.js'),
        files: [{ name: 'letter.txt', content: 'Dear driver,\nthis file came with the job.\n' }],
      },
      succeeded('words: 8'),
    ),
  ])
  await Promise.all(
    ['lane-a', 'lane-b', 'lane-c'].map((lane) =>
      run(
        `runs beside others in ${lane}`,
        {
          label: lane,
          task_space: `demo-${lane}`,
          payload: script('jobs/lane.js', { __LANE__: lane, __PAGE__: page }),
        },
        succeeded(`step 4 in the tab of ${lane}`),
      ),
    ),
  )
  await run(
    'is cancelled half-way',
    { label: 'endless', task_space: 'demo-endless', payload: script('jobs/endless.js') },
    (job) => job.cancelled && job.exit_code !== 0 && job.line_count > 0 && job.line_count < 60,
    async (id) => {
      await service.waitForLines(id)
      console.log('-- cancelling the endless job')
      await service.cancel(id)
    },
  )

  await service.addProviderRule({ match: 'forbidden', status: 401 })
  await service.addProviderRule({ match: 'endless', never: true })
  const ask = (prompt) => ({
    kind: 'llm',
    payload: JSON.stringify({ v: 1, role: 'demo', model: 'demo-model', prompt }),
  })
  const result = (job, lines) => JSON.parse(/^__LLMEND__(.*)$/.exec(lines.at(-1))[1])
  await Promise.all([
    run(
      'asks the provider',
      ask('How are you?'),
      (job, lines) => job.exit_code === 0 && result(job, lines).ok,
    ),
    run(
      'is refused by the provider',
      ask('a forbidden question'),
      (job, lines) => job.exit_code === 1 && result(job, lines).category === 'permission',
    ),
    run(
      'is cancelled in flight',
      ask('an endless question'),
      (job) => job.cancelled && job.line_count === 0,
      async (id) => {
        await service.waitUntilLeased(id)
        console.log('-- cancelling the endless call')
        await service.cancel(id)
      },
    ),
  ])

  const status = await processes.stop('driver')
  if (status !== 130) failures.push(`the driver ended with status ${status}, not 130`)
  console.log(`\n${resultTable(rows.sort((a, b) => a.id - b.id))}`)
}

try {
  await main()
} catch (error) {
  failures.push(error.message)
} finally {
  await processes.stopAll()
  execFileSync(`${programs}/verdo-browser`, ['stop'], { stdio: 'ignore' })
  rmSync(runtime, { recursive: true, force: true })
}
for (const failure of failures) console.error(`demo: ${failure}`)
process.exit(failures.length === 0 ? 0 : 1)
