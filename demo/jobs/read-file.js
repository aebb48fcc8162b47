const { readFileSync } = require('node:fs')
const letter = readFileSync(__VERDO_FILE__letter.txt__, 'utf8')
for (const line of letter.trimEnd().split('\n')) cliLog('letter: ' + line)
cliLog('words: ' + letter.split(/\s+/).filter(Boolean).length)
