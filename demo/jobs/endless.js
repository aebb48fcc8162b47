await openTaskSpace('demo-endless')
for (let second = 1; second <= 60; ++second) {
  cliLog('second ' + second + ' of 60')
  await new Promise((resolve) => setTimeout(resolve, 1000))
}
