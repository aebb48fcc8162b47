import { createServer } from 'node:http'

/** Serves one web page on loopback, for the demo's browser to read; gives its address. */
export async function servePage(html) {
  const server = createServer((request, response) => {
    response.setHeader('Content-Type', 'text/html; charset=utf-8')
    response.end(html)
  })
  await new Promise((resolve, reject) => server.on('error', reject).listen(0, '127.0.0.1', resolve))
  server.unref()
  return `http://127.0.0.1:${server.address().port}/`
}
