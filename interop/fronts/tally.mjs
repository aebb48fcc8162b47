/**
 * What became of lines on their way. A post whose reply was lost is sent again, so its lines come
 * twice; the second time they must follow the first at once, in one block that ends with the latest
 * line. Whatever else comes a second time, or too late, is out of place.
 */
export class Tally {
  wanted = 0
  lost = 0
  misplaced = 0 // foreign ones included
  repeated = 0
  repeats = 0 // blocks of repeated lines: posts

  /** Accounts for lines that are all different from one another. */
  count(wanted, got) {
    const positions = new Map(wanted.map((line, i) => [line, i]))
    const seen = new Set()
    let next = 0 // the position behind the latest line
    let block = null
    const endBlock = () => {
      if (!block) return
      const size = block.end - block.begin
      if (block.end === next) {
        this.repeated += size
        ++this.repeats
      } else {
        this.misplaced += size
      }
      block = null
    }
    for (const line of got) {
      const position = positions.get(line)
      if (position !== undefined && seen.has(position)) {
        if (position !== block?.end) {
          endBlock()
          block = { begin: position, end: position }
        }
        ++block.end
        if (block.end === next) endBlock()
        continue
      }
      endBlock()
      if (position === undefined || position < next) ++this.misplaced
      if (position === undefined) continue
      seen.add(position)
      next = Math.max(next, position + 1)
    }
    endBlock()
    this.wanted += wanted.length
    this.lost += wanted.length - seen.size
  }
}
