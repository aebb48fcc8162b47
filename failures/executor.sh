# Stands in for a browser executor: a job's script is a shell's.
script=$(cat)
case $script in
  *listTaskSpaces*) echo '__SPACES__[{"name": "u1-left"}]' ;;
  *completeTaskSpace*) echo closed ;;
  *) eval "$script" ;;
esac
