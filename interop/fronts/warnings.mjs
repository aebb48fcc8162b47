const kKindWidth = 110

/** Warnings that come with what the jobs do, whatever stands in front of the service. */
export const kOrdinary = [
  /^stopping /,
  /^job \d+: cancel requested /,
  /^job \d+: finished with exit .*\(cancelled\)$/,
]

/** What a driver logged as a warning or an error. */
export class Warnings {
  lines = []

  hear(line) {
    const text = /^(?:!|✗) (.*)$/.exec(line.replace(/\x1b\[[0-9;]*m/g, ''))?.[1]
    if (text) this.lines.push(text)
  }

  count(pattern) {
    return this.lines.filter((line) => pattern.test(line)).length
  }

  /** Each kind once, with how often it came. */
  kinds() {
    const counts = new Map()
    for (const line of this.lines) {
      if (kOrdinary.some((pattern) => pattern.test(line))) continue
      const kind = line
        .replace(/\s+/g, ' ')
        .replace(/\d+/g, (n) => (/^[45]\d\d$/.test(n) ? n : 'N'))
      const short = kind.length > kKindWidth ? `${kind.slice(0, kKindWidth)}…` : kind
      counts.set(short, (counts.get(short) ?? 0) + 1)
    }
    return counts
  }
}
