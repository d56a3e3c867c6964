# Completion of tarn for fish: the tool itself says what can stand next.
function __tarn_complete
  set -l words (commandline -opc)
  set -e words[1]
  for line in (tarn complete -- $words (commandline -ct) 2>/dev/null)
    if test "$line" = ":files"
      __fish_complete_path (commandline -ct)
    else
      echo $line
    end
  end
end
complete -c tarn -f -a "(__tarn_complete)"
