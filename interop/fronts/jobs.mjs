import { createHash } from 'node:crypto'
import { setTimeout as sleep } from 'node:timers/promises'
import { Tally } from './tally.mjs'

const kSmallJobs = 30
const kTicks = 80 // ten a second: the job runs while a row does what it does to its front
const kFloodLines = 200_000 // of 100 bytes
const kLongNumbers = 430_000 // in one line: 3 MB
const kFileBytes = 20_000_000
const kCancelLimit = 15_000 // ms until a cancelled job has ended

const kFile = Array.from({ length: kFileBytes / 10 }, (_, i) => String(i).padStart(10, '0')).join(
  '',
)
const kFileHash = createHash('sha256').update(kFile).digest('hex')

const numbers = (count, form = String) => Array.from({ length: count }, (_, i) => form(i + 1))
const kFlood = numbers(kFloodLines, (i) => String(i).padStart(99, '0'))
const kLongLine = numbers(kLongNumbers)

/** The jobs of one row: what each prints, and whether the service got it. */
export class Jobs {
  tally = new Tally()
  faults = []
  #service
  #queued = []

  constructor(service) {
    this.#service = service
  }

  /**
   * Queues all of them. With `fileFirst`, the one with a file is over before the others begin: a
   * download that breaks off is not repeated.
   */
  async queue({ fileFirst }) {
    await this.#add({
      name: 'file',
      payload: 'sha256sum < __VERDO_FILE__large.txt__',
      files: [{ name: 'large.txt', content: kFile }],
      lines: [`${kFileHash}  -`],
    })
    if (fileFirst) await this.#service.waitUntilDone(this.#named('file').id)
    await this.#add({
      name: 'ticker',
      payload: `i=1; while [ $i -le ${kTicks} ]; do echo tick $i; i=$((i + 1)); sleep 0.1; done`,
      lines: numbers(kTicks, (i) => `tick ${i}`),
    })
    await this.#add({
      name: 'endless',
      payload: 'i=1; while :; do echo $i; i=$((i + 1)); sleep 0.1; done',
    })
    await this.#add({
      name: 'flood',
      payload: `seq -f '%099.0f' ${kFloodLines}`,
      lines: kFlood,
    })
    await this.#add({
      name: 'long line',
      payload: `seq -s ' ' ${kLongNumbers}`,
      // One line, which may come in pieces: what is accounted for is its numbers.
      parts: (lines) => lines.join('').split(' '),
      lines: kLongLine,
    })
    await this.#add({
      name: 'llm',
      kind: 'llm',
      payload: JSON.stringify({ v: 1, role: 'interop', model: 'interop', prompt: 'How are you?' }),
      parts: (lines) => [JSON.parse(/^__LLMEND__(.*)$/.exec(lines.at(-1))?.[1] ?? '{}').ok],
      lines: [true],
    })
    for (let i = 1; i <= kSmallJobs; ++i) await this.addSmall(i)
    await this.#service.waitUntilLeased(this.#named('ticker').id)
  }

  async addSmall(number) {
    await this.#add({
      name: `small ${number}`,
      payload: `for i in 1 2 3; do echo ${number} $i; sleep 0.2; done`,
      lines: numbers(3, (i) => `${number} ${i}`),
    })
  }

  #named(name) {
    return this.#queued.find((job) => job.name === name)
  }

  async #add({ name, lines, parts, ...spec }) {
    const id = await this.#service.addJob({ kind: 'run', label: name, ...spec })
    this.#queued.push({ id, name, lines, parts })
  }

  /** Has the service cancel the job that never ends, and waits until it has. */
  async cancelEndless() {
    const { id } = this.#named('endless')
    await this.#service.waitForLines(id)
    const begin = performance.now()
    await this.#service.cancel(id)
    const ended = await this.#service.waitUntilDone(id)
    const took = performance.now() - begin
    if (!ended.cancelled || ended.exit_code === 0 || took > kCancelLimit) {
      this.faults.push(`cancelled with exit ${ended.exit_code} after ${(took / 1000).toFixed(0)} s`)
    }
  }

  /** Waits until all of them have ended. */
  async waitForAll() {
    for (const job of this.#queued) {
      const ended = await this.#service.waitUntilDone(job.id)
      if (job.name === 'endless') continue
      if (ended.exit_code !== 0 || ended.error) {
        this.faults.push(`${job.name}: exit ${ended.exit_code}, ${ended.error}`)
      }
    }
  }

  /** Accounts for what they have printed. */
  async account() {
    for (const job of this.#queued) {
      const lines = await this.#linesOf(job.id)
      // How far the endless job got, only its last line tells.
      const wanted = job.lines ?? numbers(Number(lines.at(-1)))
      this.tally.count(wanted, job.parts ? job.parts(lines) : lines)
    }
  }

  async #linesOf(id) {
    const lines = []
    for (;;) {
      const page = await this.#service.linesFrom(id, lines.length)
      if (page.length === 0) return lines
      lines.push(...page)
    }
  }
}

/** Waits until something holds, and says whether it came to hold in time. */
export async function holdsWithin(milliseconds, holds) {
  const end = performance.now() + milliseconds
  while (!(await holds())) {
    if (performance.now() > end) return false
    await sleep(50)
  }
  return true
}
