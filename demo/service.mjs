import { createInterface } from 'node:readline'

const kStartLimit = 10_000 // ms
const kJobLimit = 90 // s
const kShownLine = 160 // characters

/** The running local service, spoken to through its control interface. */
export class Service {
  #controlToken

  constructor(url, token, controlToken, provider) {
    this.url = url
    this.token = token
    this.#controlToken = controlToken
    this.provider = provider // base URL of the LLM provider's stand-in
  }

  static async start(processes, program, providerKey) {
    const { child, ended } = processes.start('service', program, [
      '--port',
      '0',
      '--provider-key',
      providerKey,
    ])
    const announced = {}
    const lines = createInterface({ input: child.stdout })
    const ready = new Promise((resolve) => {
      lines.on('line', (line) => {
        const [, key, value] = /^(listening on|token|control|provider) (\S+)$/.exec(line) ?? []
        announced[key] = value
        if (announced.provider) resolve(true) // the last of them
      })
    })
    const late = new Promise((resolve) => setTimeout(resolve, kStartLimit, false).unref())
    if ((await Promise.race([ready, late, ended.then(() => false)])) !== true) {
      throw new Error('the local service did not start')
    }
    return new Service(
      announced['listening on'],
      announced.token,
      announced.control,
      announced.provider,
    )
  }

  async #call(path, method = 'GET', body = undefined) {
    const response = await fetch(`${this.url}/control/${path}`, {
      method,
      headers: { authorization: `Bearer ${this.#controlToken}` },
      body: body === undefined ? undefined : JSON.stringify(body),
    })
    const reply = await response.json()
    if (!response.ok) throw new Error(`${method} ${path}: ${reply.error}`)
    return reply
  }

  /** Sets how the provider's stand-in answers the calls that hold a text. */
  async addProviderRule(rule) {
    await this.#call('provider', 'POST', rule)
  }

  async addJob(job) {
    return (await this.#call('jobs', 'POST', job)).id
  }

  /** Prints a job's lines as they arrive; resolves once the job is done. */
  async showLines(id, name) {
    for (let from = 0; ;) {
      const { lines, next, state } = await this.#call(`jobs/${id}/lines?from=${from}&wait=10`)
      for (const line of lines) console.log(`${name} | ${line.slice(0, kShownLine)}`)
      from = next
      if (state === 'done' && lines.length === 0) return
    }
  }

  async lines(id) {
    return (await this.#call(`jobs/${id}/lines`)).lines
  }

  /** The lines from number `from` on, as many as one reply holds. */
  async linesFrom(id, from) {
    return (await this.#call(`jobs/${id}/lines?from=${from}`)).lines
  }

  async waitForLines(id) {
    await this.#call(`jobs/${id}/wait?for=lines&timeout=${kJobLimit}`)
  }

  async waitUntilDone(id) {
    await this.#call(`jobs/${id}/wait?for=done&timeout=${kJobLimit}`)
    const job = await this.#call(`jobs/${id}`)
    if (job.state !== 'done') throw new Error(`job ${id} did not end within ${kJobLimit} s`)
    return job
  }

  async requestCount(endpoint) {
    return (await this.#call(`requests?endpoint=${endpoint}&limit=1`)).count
  }

  async waitUntilLeased(id) {
    await this.#call(`jobs/${id}/wait?for=leased&timeout=${kJobLimit}`)
  }

  /** Has requests of drivers meet with a fault, until the service ends. */
  async addFault(fault) {
    await this.#call('faults', 'POST', fault)
  }

  /** How long jobs are leased for from now on, in seconds. */
  async setLease(seconds) {
    await this.#call('lease', 'POST', { seconds })
  }

  /** From now on all connects are refused for a while, those of this object included. */
  async refuseConnects(seconds) {
    await this.#call('outage', 'POST', { kind: 'refuse', seconds })
  }

  async cancel(id) {
    await this.#call(`jobs/${id}/cancel`, 'POST')
  }
}
