# Completion of verdo-driver-app for fish.

complete -c verdo-driver-app -f
complete -c verdo-driver-app -l show -d 'Start with the window open'
complete -c verdo-driver-app -l status -d 'Print the running app\'s state as JSON'
complete -c verdo-driver-app -l quit -d 'End the running app, once its driver has stopped'
complete -c verdo-driver-app -o VERDOImportLegacy -d 'Take over and remove a driver that starts itself in a terminal'
complete -c verdo-driver-app -l version -d 'Show the version and end'
complete -c verdo-driver-app -l help -d 'Show the options and end'
