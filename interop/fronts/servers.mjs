import { createServer, connect } from 'node:net'
import { holdsWithin } from './jobs.mjs'

const kStartLimit = 15_000 // ms

/** A port of 127.0.0.1 that nobody listens on. */
export async function freePort() {
  const server = createServer().listen(0, '127.0.0.1')
  await new Promise((resolve) => server.once('listening', resolve))
  const { port } = server.address()
  await new Promise((resolve) => server.close(resolve))
  return port
}

function accepts(port) {
  return new Promise((resolve) => {
    const socket = connect(port, '127.0.0.1')
    socket.once('connect', () => socket.end(() => resolve(true)))
    socket.once('error', () => resolve(false))
  })
}

/** Starts a server and waits until it listens. What it says of itself is told when it does not. */
export async function startServer(processes, port, program, options) {
  const said = []
  const started = processes.start(program, program, options, { show: (line) => said.push(line) })
  if (!(await holdsWithin(kStartLimit, () => accepts(port)))) {
    throw new Error(`${program} does not listen: ${said.join(' / ')}`)
  }
  return started.child
}
