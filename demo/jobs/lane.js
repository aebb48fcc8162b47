const lane = '__LANE__'
const page = await openTaskSpace('demo-' + lane)
await page.goto('__PAGE__?lane=' + lane)
for (let step = 1; step <= 4; ++step) {
  const seen = await page.evaluate(() => new URL(location).searchParams.get('lane'))
  cliLog('step ' + step + ' in the tab of ' + seen)
  await new Promise((resolve) => setTimeout(resolve, 800))
}
await completeTaskSpace('demo-' + lane, { keep: false })
