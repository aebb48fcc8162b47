/** The rows of a result as verdo-bench shows them. */

const COLUMNS = {
  what: 'what',
  measured: 'measured',
  target: 'target',
  met: 'met',
  reference: 'reference in this run',
};

/**
 * @param {{what: string, measured: string, target: string, met: boolean, reference?: string}[]} rows
 * @returns {string}
 */
export function format(rows) {
  const lines = [COLUMNS, ...rows.map((row) => ({ ...row, met: row.met ? 'yes' : 'NO' }))];
  const names = Object.keys(COLUMNS);
  const width = (name) => Math.max(...lines.map((line) => (line[name] ?? '').length));
  const widths = names.map(width);
  const text = (line) => names.map((name, i) => (line[name] ?? '').padEnd(widths[i])).join('  ');
  const [head, ...body] = lines.map(text);
  return [head, widths.map((n) => '-'.repeat(n)).join('  '), ...body].join('\n');
}
