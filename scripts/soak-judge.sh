# shellcheck shell=bash disable=SC2034,SC2154
# Sourced by soak-inside: what it measures, and what it makes of that. Complaints go to a file, since
# further runs of the tool go on beside.

# Kilobytes that memory may grow by from the second quarter of the run to the last, and in a minute. A release
# build stays within 100 in an hour, which it takes in steps of up to 84; one such step in the middle of five
# minutes gives a slope of 42. A leak of 64 a minute gives that slope in five minutes, and half an hour's growth
# in an hour. The address sanitizer's allocator still settles in the fifth minute, by up to 150 in a minute,
# so there such a leak shows in an hour only.
growth_allowed=256
slope_allowed=48
cycles_for_slope=5 # with fewer, a single step decides
# That a full mailbox may take, by the sizes of what happens to be in it up to 16 MiB of messages, and for each the
# allocator's part. And that may be kept of it once all is printed: a sanitizer's allocator gives nothing back.
full_allowed=24576
kept_allowed=512
if [ "$preset" = asan ]; then
  growth_allowed=1024
  slope_allowed=384
  full_allowed=36864
  kept_allowed=$full_allowed
fi
frames_expected=1000  # acknowledged in a minute, at the least
refusals_expected=600 # with a full mailbox, twice for three seconds

complain() {
  echo "$*" >>"$work/complaints"
}

status_of_tool() {
  awk -v name="$1:" '$1 == name { print $2 }' "/proc/$tool/status"
}

ticks_of_tool() {
  local stat
  stat=$(cut -d ' ' -f 14,15 "/proc/$tool/stat")
  echo $((${stat% *} + ${stat#* }))
}

# Adds a line every second, as long as the tool is there: seconds, kilobytes resident, descriptors, threads.
take_samples() {
  local descriptors
  while kill -0 "$tool" 2>/dev/null; do
    descriptors=("/proc/$tool/fd/"*)
    echo "$SECONDS $(status_of_tool VmRSS) ${#descriptors[@]} $(status_of_tool Threads)" >>"$work/samples"
    pause 1
  done
}

# summed_up WORD NAME...: what those modems' summaries say before the word.
summed_up() {
  local word=$1
  shift
  (cd "$work" && cat "${@/%/.modems}") | awk -v word="$word" '
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
  local recorded=(residents traveller burst1 burst2)
  sent=$(summed_up sent "${recorded[@]}")
  refused=$(summed_up refused "${recorded[@]}")
  noise=$(summed_up datagrams noise)
  seed=$(grep -o 'seed [0-9]*' "$work/noise.modems")
  acknowledged=$(wc -l <"$work/acknowledged.sorted")
  printed=$(wc -l <"$work/printed.once")
  duplicates=$(($(wc -l <"$work/printed.sorted") - printed))
  lost=$(wc -l <"$work/lost")
  [ "$lost" -eq 0 ] || complain "$lost acknowledged frames were not printed, see $work/lost"
  [ "$acknowledged" -eq "$(summed_up acknowledged "${recorded[@]}")" ] || complain "the modems count other frames"
  [ "$acknowledged" -ge $((frames_expected * minutes)) ] || complain "too few frames for a test"
  [ "$noise" -gt 0 ] || complain "there was no noise"
}

# What the samples say, a word and a figure in a line. Growth is that of the median from the second quarter to
# the last: the first is the warming up, and no sample decides by itself. In minutes a leak stays below what is
# allowed to an hour, so there is the slope too: the median of what any two cycles tell, each by the median of
# its samples, as a cycle is the same trouble each time. Descriptors and threads are not to exceed the most there
# were in the second quarter.
trend() {
  awk '
    function sort(list, n,    gap, i, j, value) { # shell sort
      for (gap = int(n / 2); gap > 0; gap = int(gap / 2)) {
        for (i = gap + 1; i <= n; ++i) {
          value = list[i]
          for (j = i; j > gap && list[j - gap] > value; j -= gap) list[j] = list[j - gap]
          list[j] = value
        }
      }
    }
    function median(list, n) { sort(list, n); return (list[int((n + 1) / 2)] + list[int(n / 2) + 1]) / 2 }
    function part(column, from, to,    i, list, n) {
      for (i = from; i <= to; ++i) list[++n] = column[i]
      return median(list, n)
    }
    function most(column, from, to,    i, result) {
      for (i = from; i <= to; ++i) if (column[i] > result) result = column[i]
      return result + 0
    }
    /^cycle/ { begin[++cycles] = count + 1; next }
    { seconds[++count] = $1; memory[count] = $2; descriptors[count] = $3; threads[count] = $4 }
    END {
      quarter = int(count / 4)
      if (cycles < 3 || quarter < 4) exit 1
      begin[cycles + 1] = count + 1
      for (i = 2; i <= cycles; ++i) {
        level[i] = part(memory, begin[i], begin[i + 1] - 1)
        for (j = 2; j < i; ++j) slopes[++pairs] = (level[i] - level[j]) / (seconds[begin[i]] - seconds[begin[j]]) * 60
      }
      second = part(memory, quarter + 1, 2 * quarter)
      last = part(memory, count - quarter + 1, count)
      printf "cycles=%d second=%d last=%d slope=%.1f\n", cycles, second, last, median(slopes, pairs)
      printf "descriptors_before=%d descriptors_after=%d threads_before=%d threads_after=%d\n",
        most(descriptors, quarter + 1, 2 * quarter), most(descriptors, count - quarter + 1, count),
        most(threads, quarter + 1, 2 * quarter), most(threads, count - quarter + 1, count)
    }' "$work/samples"
}

judge_samples() {
  local cycles second last slope descriptors_before descriptors_after threads_before threads_after
  if ! trend >"$work/trend"; then
    complain "too few samples for a trend"
    return
  fi
  # shellcheck source=/dev/null
  . "$work/trend"
  trend_memory="$second kB in the second quarter, $last kB in the last, $slope kB a minute"
  trend_descriptors="$descriptors_before in the second quarter, $descriptors_after in the last"
  trend_threads="$threads_before in the second quarter, $threads_after in the last"
  [ $((last - second)) -le "$growth_allowed" ] ||
    complain "memory grew by $((last - second)) kB, $growth_allowed are allowed"
  [ "$cycles" -lt "$cycles_for_slope" ] ||
    awk -v slope="$slope" -v allowed="$slope_allowed" 'BEGIN { exit slope > allowed }' ||
    complain "memory grew by $slope kB a minute, $slope_allowed are allowed"
  [ "$descriptors_after" -le "$descriptors_before" ] || complain "descriptors grew"
  [ "$threads_after" -le "$threads_before" ] || complain "threads grew"
}

judge_filling() {
  flood_taken=$(summed_up acknowledged flood1 flood2)
  flood_refused=$(summed_up refused flood1 flood2 burst1 burst2)
  [ "$flood_refused" -ge "$refusals_expected" ] || complain "with a full mailbox only $flood_refused answers came"
  [ "$(summed_up lost flood1 flood2 burst1 burst2)" -eq 0 ] || complain "with a full mailbox frames were not answered"
  [ "$(grep -c '^FF44' "$work/printed")" -ge "$flood_taken" ] ||
    complain "not all $flood_taken long frames were printed"
  local full
  for full in "$memory_full_once" "$memory_full"; do
    [ $((full - memory_before)) -le "$full_allowed" ] ||
      complain "a full mailbox took $((full - memory_before)) kB, $full_allowed are allowed"
  done
}

measure_processor() {
  cpu=$(awk -v ticks=$((last_ticks - first_ticks)) -v seconds=$((last_second - first_second)) \
    -v hertz="$(getconf CLK_TCK)" 'BEGIN { printf "%.1f", (seconds > 0 ? 100 * ticks / hertz / seconds : 0) }')
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
  row 'minutes' "$(awk -v s="$SECONDS" 'BEGIN { printf "%.1f", s / 60 }') ($preset)"
  row 'frames sent' "$sent"
  row '  acknowledged' "$acknowledged"
  row '  refused' "$refused"
  row '  printed' "$printed, and $duplicates again"
  row '  acknowledged, lost' "$lost"
  row 'noise datagrams' "$noise, $seed"
  row 'memory' "$trend_memory"
  row '  with a full mailbox' "$memory_before kB before, $memory_full_once kB, $memory_full kB the second time, then $memory_back kB"
  row '  refused then' "$flood_refused, taken before $flood_taken"
  row 'descriptors' "$trend_descriptors"
  row 'threads' "$trend_threads"
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
    judge_filling
    measure_processor
    judge_actions
    print_table
  fi
  verdict
}
