# shellcheck shell=bash disable=SC2154
# Sourced by soak-inside: what it measures, and what it makes of that. Complaints go to a file, since
# further runs of the tool go on beside.

growth_allowed=512 # kilobytes, from the end of the first cycle on
if [ "$preset" = asan ]; then
  growth_allowed=4096
fi
frames_expected=1000 # acknowledged in a minute, at the least

complain() {
  echo "$*" >>"$work/complaints"
}

status_of_tool() {
  awk -v name="$1:" '$1 == name { print $2 }' "/proc/$tool/status"
}

# A line of kilobytes resident and at the peak, descriptors, threads, seconds, clock ticks of CPU.
sample() {
  local stat
  stat=$(cut -d ' ' -f 14,15 "/proc/$tool/stat")
  echo "$(status_of_tool VmRSS) $(status_of_tool VmHWM) $(find "/proc/$tool/fd" -type l | wc -l)" \
    "$(status_of_tool Threads) $SECONDS $((${stat% *} + ${stat#* }))" >>"$work/samples"
}

# summed_up WORD: what the modems' summaries say before it.
summed_up() {
  cat "$work"/*.modems | awk -v word="$1" '
    / sim (frames|noise): / {
      for (i = 2; i <= NF; ++i) if (index($i, word) == 1) { sum += $(i - 1); break }
    }
    END { print sum + 0 }'
}

judge_frames() {
  sort -u "$work/acknowledged" >"$work/acknowledged.sorted"
  grep '^17442D4D' "$work/printed" | sort >"$work/printed.sorted" || true
  uniq "$work/printed.sorted" >"$work/printed.once"
  comm -23 "$work/acknowledged.sorted" "$work/printed.once" >"$work/lost"
  sent=$(summed_up sent)
  noise=$(summed_up datagrams)
  seed=$(grep -o 'seed [0-9]*' "$work/noise.modems")
  acknowledged=$(wc -l <"$work/acknowledged.sorted")
  printed=$(wc -l <"$work/printed.once")
  duplicates=$(($(wc -l <"$work/printed.sorted") - printed))
  lost=$(wc -l <"$work/lost")
  [ "$lost" -eq 0 ] || complain "$lost acknowledged frames were not printed, see $work/lost"
  [ "$acknowledged" -eq "$(summed_up acknowledged)" ] || complain "the modems count other frames"
  [ "$acknowledged" -ge $((frames_expected * minutes)) ] || complain "too few frames for a test"
  [ "$noise" -gt 0 ] || complain "there was no noise"
}

judge_samples() {
  read -r first_memory _ first_descriptors first_threads first_second first_ticks \
    < <(head -n 1 "$work/samples")
  read -r last_memory peak last_descriptors last_threads last_second last_ticks \
    < <(tail -n 1 "$work/samples")
  cpu=$(awk -v ticks=$((last_ticks - first_ticks)) -v seconds=$((last_second - first_second)) \
    -v hertz="$(getconf CLK_TCK)" 'BEGIN { printf "%.1f", (seconds > 0 ? 100 * ticks / hertz / seconds : 0) }')
  [ $((last_memory - first_memory)) -le "$growth_allowed" ] ||
    complain "memory grew by $((last_memory - first_memory)) kB, $growth_allowed are allowed"
  [ "$last_descriptors" -le "$first_descriptors" ] || complain "descriptors grew"
  [ "$last_threads" -le "$first_threads" ] || complain "threads grew"
}

judge_actions() {
  local kinds=8
  [ "$(cut -d: -f1 "$work/actions" | sort -u | wc -l)" -eq "$kinds" ] ||
    complain "not all $kinds actions were tried"
  ! grep -qv ': done$' "$work/actions" || complain "actions failed, see $work/actions.failed"
}

row() {
  printf '  %-24s %s\n' "$1" "$2"
}

print_table() {
  row 'minutes' "$(awk -v s="$last_second" 'BEGIN { printf "%.1f", s / 60 }') ($preset)"
  row 'frames sent' "$sent"
  row '  acknowledged' "$acknowledged"
  row '  printed' "$printed, and $duplicates again"
  row '  acknowledged, lost' "$lost"
  row 'noise datagrams' "$noise, $seed"
  row 'memory' "$first_memory kB, at the end $last_memory kB, peak $peak kB"
  row 'descriptors' "$first_descriptors, at the end $last_descriptors"
  row 'threads' "$first_threads, at the end $last_threads"
  row 'processor' "$cpu %"
  sort "$work/actions" | uniq -c | while read -r times name_and_outcome; do
    row "action ${name_and_outcome%%:*}" "$times ${name_and_outcome#*: }"
  done
}

verdict() {
  if [ -s "$work/complaints" ]; then
    sed 's/^/FAILED: /' "$work/complaints" >&2
    exit 1
  fi
  echo "All is well."
}

# Ends the script.
judge() {
  if [ -s "$work/samples" ]; then
    judge_frames
    judge_samples
    judge_actions
    print_table
  fi
  verdict
}
