import { spawn } from 'node:child_process'
import { createInterface } from 'node:readline'

/** The programs that the demo has started; none of them outlives it. */
export class Processes {
  #running = new Map()

  /**
   * Starts a program. With `show`, its standard error is shown line by line behind its name,
   * or given to `show` line by line.
   */
  start(name, path, args, { env = process.env, show = false } = {}) {
    const child = spawn(path, args, { env, stdio: ['ignore', 'pipe', show ? 'pipe' : 'inherit'] })
    const ended = new Promise((resolve, reject) => {
      child.on('error', (error) => reject(new Error(`cannot start ${path}: ${error.message}`)))
      child.on('exit', (code, signal) => resolve(code ?? signal))
    })
    ended.catch(() => {})
    if (show) {
      const toConsole = (line) => console.log(`${name} | ${line}`)
      createInterface({ input: child.stderr }).on('line', show === true ? toConsole : show)
    }
    this.#running.set(name, { child, ended })
    return { child, ended }
  }

  /** Asks a program to end and gives its status. */
  async stop(name) {
    const { child, ended } = this.#running.get(name)
    this.#running.delete(name)
    child.kill('SIGTERM')
    return ended
  }

  async stopAll() {
    await Promise.allSettled([...this.#running.keys()].map((name) => this.stop(name)))
  }
}
