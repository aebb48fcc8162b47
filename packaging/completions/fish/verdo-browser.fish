# Completion of verdo-browser for fish. Names of task spaces are not completed: to list them ends a
# browser that hangs, which a key must not do.

complete -c verdo-browser -f
complete -c verdo-browser -n __fish_is_first_token -a nodejs -d 'Run the script on standard input, with a headless browser at hand'
complete -c verdo-browser -n __fish_is_first_token -a login -d 'Open a window to log in to sites'
complete -c verdo-browser -n __fish_is_first_token -a forget -d 'Forget what was logged in to'
complete -c verdo-browser -n __fish_is_first_token -a list -d 'List the task spaces'
complete -c verdo-browser -n __fish_is_first_token -a close -d 'Close a task space'
complete -c verdo-browser -n __fish_is_first_token -a status -d 'Tell whether the browser runs, and its task spaces'
complete -c verdo-browser -n __fish_is_first_token -a stop -d 'End the browser and all task spaces'
complete -c verdo-browser -n __fish_is_first_token -l version -d 'Show the version and end'
complete -c verdo-browser -n __fish_is_first_token -l help -d 'Show the commands and end'
