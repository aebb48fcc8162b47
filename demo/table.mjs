/** One word for how a job ended. */
function result(job) {
  if (job.cancelled) return `cancelled (exit ${job.exit_code})`
  if (job.exit_code === 0 && !job.error) return 'done'
  return `failed (exit ${job.exit_code})`
}

/** The jobs as a text table: what, lane, result, lines, seconds from lease to completion. */
export function resultTable(jobs) {
  const head = ['job', 'lane', 'result', 'lines', 'time']
  const rows = jobs.map((job) => [
    `${job.id} ${job.title}`,
    job.lane,
    result(job),
    String(job.line_count),
    `${((job.finished_ms - job.leased_ms) / 1000).toFixed(1)} s`,
  ])
  const widths = head.map((_, column) =>
    Math.max(...[head, ...rows].map((row) => row[column].length)),
  )
  const format = (row) =>
    row
      .map((cell, column) =>
        column < 3 ? cell.padEnd(widths[column]) : cell.padStart(widths[column]),
      )
      .join('  ')
  return [
    format(head),
    widths.map((width) => '-'.repeat(width)).join('  '),
    ...rows.map(format),
  ].join('\n')
}
