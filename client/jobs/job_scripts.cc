// SPDX-License-Identifier: Apache-2.0
// Written for dash, bash and the ash of busybox, without local variables, arrays or process
// substitution. All variables begin with "job_": a variable of the daemon's environment that gets a
// new value here would have it in the program's environment too.
//
// The files of a job, in TOP/ID:
//   token       names the caller that has made the directory
//   command     the program and its arguments, for users
//   in          standard input, if there is any
//   started     "BOOT PID GROUP BEGIN OUT ERR WATCH LIMIT SEGMENT TIME", written before the program
//               starts: PID is the wrapper, BEGIN its start time in /proc/PID/stat
//   out.N, err.N  segment N of standard output and standard error. All but the last one have
//               SEGMENT bytes. A reader may remove complete segments.
//   out.lost, err.lost  "BYTES run" or "BYTES end": what did not fit
//   status      "STATUS LATE LOST LOST TIME", renamed from status.new when the program has ended
#include "client/jobs/job_scripts.h"

#include <algorithm>
#include <cstddef>
#include <initializer_list>
#include <string_view>

namespace runel {
namespace {

const char kMask[] = R"sh(
job_mask=$(umask)
)sh";

const char kCommon[] = R"sh(
# Messages of the shell and its utilities would be mixed with the answer.
exec 2>/dev/null
umask 077

job_fail() {
  printf '%s\n' "$2"
  exit "$1"
}

# Each component of the path $1 must be a directory that only root can change: another user could
# otherwise replace a job by a link, or forge one. With $2, missing components are created.
job_check() {
  job_done=
  job_rest=$1
  job_component / "$2"
  while [ -n "$job_rest" ]; do
    job_rest=${job_rest#/}
    job_done=$job_done/${job_rest%%/*}
    case $job_rest in
      */*) job_rest=/${job_rest#*/} ;;
      *) job_rest= ;;
    esac
    job_component "$job_done" "$2"
  done
}
job_component() {
  if ! job_entry=$(ls -ldn "$1"); then
    [ -n "$2" ] || job_fail 86 "$1: no such directory"
    job_said=$(mkdir "$1" 2>&1) || [ -d "$1" ] || job_fail 82 "$job_said"
    # shellcheck disable=SC2034  # only a start creates anything
    job_made=yes
    job_entry=$(ls -ldn "$1") || job_fail 82 "$1: cannot be examined"
  fi
  job_path=$1
  set -f
  # shellcheck disable=SC2086  # the fields of the line
  set -- $job_entry
  set +f
  case $1 in
    l*) job_fail 81 "$job_path: is a symbolic link" ;;
    d*) ;;
    *) job_fail 81 "$job_path: is not a directory" ;;
  esac
  case $1 in
    ?????w* | ????????w*) job_fail 81 "$job_path: other users than root can write to it" ;;
  esac
  [ "$3" = 0 ] || job_fail 81 "$job_path: does not belong to root"
}

# The fields of /proc/PID/stat after the name, which may contain blanks.
job_fields() {
  # shellcheck disable=SC2034  # not every text needs all of them
  job_phase=$1 job_parent=$2 job_group=$3 job_begin=${20}
}
# Whether the wrapper of a job runs: BOOT PID GROUP BEGIN... as in its file "started". A process
# number alone proves nothing, because the kernel gives it to another process later. The process
# with the number of the group has ended when the wrapper starts, so the wrapper stands for it: it
# is a member of the group.
job_alive() {
  read -r job_boot </proc/sys/kernel/random/boot_id
  [ "$1" = "$job_boot" ] && read -r job_stat <"/proc/$2/stat" || return 1
  # shellcheck disable=SC2086  # the fields of the line
  job_fields ${job_stat##*) }
  case $job_phase in Z | X) return 1 ;; esac
  [ "$3" = "$job_group" ] && [ "$4" = "$job_begin" ]
}
)sh";

const char kErase[] = R"sh(
# Whether no program of the job $1 runs.
job_idle() {
  [ ! -e "$1/status" ] && read -r job_line <"$1/started" || return 0
  # shellcheck disable=SC2086  # the fields of the line
  ! job_alive $job_line
}
# Removes the job $1. The rename makes it vanish at once, so that no reader finds half of it.
job_erase() {
  mv "$job_top/$1" "$job_top/.removed.$$.$1" && rm -rf "$job_top/.removed.$$.$1"
}
)sh";

const char kKill[] = R"sh(
# Kills the processes of the group $1, except the wrapper $2, the processes $3, $4 and $5 that copy
# the output and watch the time, and the children of those: the wrapper still has to store the exit
# status, and the output that was written must not be lost.
job_kill() {
  for job_file in /proc/[0-9]*/stat; do
    read -r job_stat <"$job_file" || continue
    # shellcheck disable=SC2086  # the fields of the line
    job_fields ${job_stat##*) }
    job_each=${job_stat%% *}
    if [ "$job_group" = "$1" ] && [ "$job_each" != "$2" ]; then
      job_spared "$job_each" "$3" "$4" "$5" || kill -KILL "$job_each"
    fi
  done
}
job_spared() {
  job_up=$1
  for job_step in 1 2 3 4 5 6; do
    case $job_up in
      "$2" | "$3" | "$4") return 0 ;;
      0 | 1) return 1 ;;
    esac
    read -r job_stat <"/proc/$job_up/stat" || return 1
    # shellcheck disable=SC2086  # the fields of the line
    job_fields ${job_stat##*) }
    job_up=$job_parent
  done
  [ -z "$job_step" ]
}
)sh";

const char kCopy[] = R"sh(
# How many bytes may be stored now: job_room. A reader makes room by removing complete segments.
job_measure() {
  if [ "$job_have" -ge "$job_segment" ]; then
    job_at=$((job_at + 1))
    job_have=0
  fi
  while [ "$job_first" -lt "$job_at" ] && [ ! -e "$1.$job_first" ]; do
    job_first=$((job_first + 1))
  done
  job_room=$((job_limit - (job_at - job_first) * job_segment - job_have))
  [ "$job_room" -le $((job_segment - job_have)) ] || job_room=$((job_segment - job_have))
  # A tenth of the file system stays free. Both streams share the rest. A file system without blocks
  # cannot tell.
  job_free=$(df -Pk . | {
    read -r _
    read -r _ job_blocks _ job_left _
    [ "$job_blocks" -eq 0 ] || printf '%s' $(((job_left - job_blocks / 10) * 512))
  })
  [ -z "$job_free" ] || [ "$job_free" -ge "$job_room" ] || job_room=$job_free
}

# Copies standard input to the segments of the stream $1. The pipe keeps the program from filling
# the file system: what does not fit is read and counted. dd writes what it has read at once; other
# programs would wait for a full buffer. The blocks are small, so that only little is left when the
# blocks that fit are counted.
job_copy() {
  trap '' INT TERM HUP
  cd "$job_dir" || exit
  job_first=0 job_at=0 job_have=0 job_kept=0 job_taken=0 job_lost=0 job_reads=1
  while :; do
    # A process that outlives the program may still write. Discard that.
    if [ ! -d "$job_dir" ] || [ -e status ]; then
      exec cat >/dev/null
    fi
    job_measure "$1"
    if [ "$job_room" -gt 0 ]; then
      job_size=4096
      job_reads=$((job_room / job_size))
      if [ "$job_reads" -eq 0 ]; then
        job_size=$job_room
        job_reads=1
      fi
      job_got=$(dd bs="$job_size" count="$job_reads" | tee -a "$1.$job_at" | wc -c)
      # tee counts what it could not store too: the file system may be full.
      job_size=$(wc -c <"$1.$job_at") || job_size=$job_have
      job_size=$((job_size))
      job_kept=$((job_kept + job_size - job_have))
      job_have=$job_size
      job_reads=1
    else
      job_got=$(dd bs=65536 count="$job_reads" | wc -c)
      # The more was lost in a row, the rarer the room is measured.
      [ "$job_reads" -ge 256 ] || job_reads=$((job_reads * 2))
    fi
    [ $((job_got)) -gt 0 ] || break
    job_taken=$((job_taken + job_got))
    if [ $((job_taken - job_kept)) -gt "$job_lost" ]; then
      job_lost=$((job_taken - job_kept))
      printf '%-40s\n' "$job_lost run" 1<>"$1.lost"
    fi
  done
  printf '%-40s\n' "$job_lost end" 1<>"$1.lost"
}
)sh";

const char kWrapper[] = R"sh(
# Stops the program at its time limit like the daemon does: SIGTERM, and SIGKILL 2 s later. Wakes up
# each second, so that it does not outlive the program by more.
job_watch() {
  trap '' INT TERM HUP
  while [ "$job_seconds" -gt 0 ]; do
    sleep 1
    if [ ! -d "$job_dir" ] || [ -e "$job_dir/status" ]; then
      exit
    fi
    job_seconds=$((job_seconds - 1))
  done
  job_alive "$job_boot" "$job_pid" "$job_group" "$job_begin" || exit
  kill -USR1 "$job_pid"
  kill -TERM "-$job_group"
  sleep 2
  read -r job_self _ </proc/self/stat
  [ -e "$job_dir/status" ] || job_kill "$job_group" "$job_pid" "$job_out" "$job_err" "$job_self"
}

# Removes finished jobs whose ID begins with PREFIX, DAYS days after their last change. A job that
# was never started may be about to be: it stays for a day at least.
job_sweep() {
  trap '' INT TERM HUP
  [ -n "$job_prefix" ] && cd "$job_top" || exit
  set --
  [ "$job_days" -eq 0 ] || set -- -mtime "+$((job_days - 1))"
  [ -n "$(find "./$job_prefix"* -prune -type d "$@")" ] || exit
  for job_old in "./$job_prefix"*; do
    if [ "$job_old" != "./$job_id" ] && [ -n "$(find "$job_old" -prune -type d "$@")" ] &&
      { [ -e "$job_old/started" ] || [ -n "$(find "$job_old" -prune -mtime +0)" ]; } &&
      job_idle "$job_old"; then
      job_erase "${job_old#./}"
    fi
  done
  rm -rf ./.removed.*
}

# Writes files and directories to the disk. An old sync knows no files, and writes everything.
job_sync() {
  sync "$@" || sync
}

# The exit status, on disk before it has its name. The file has its blocks since the start: it can
# be written on a full file system.
job_publish() {
  printf '%-80s\n' "$job_code $job_late ${job_lost_out:-0} ${job_lost_err:-0} $(date +%s)" \
    1<>"$job_dir/status.new" &&
    job_sync "$job_dir/status.new" &&
    mv -f "$job_dir/status.new" "$job_dir/status"
}

job_prepare() {
  mkfifo "$job_dir/out" "$job_dir/err" || return 1
  # Opened for both directions first: no open waits for the other end. Nothing else opens them.
  # shellcheck disable=SC2094
  exec 7<>"$job_dir/out" 3<"$job_dir/out" 4>"$job_dir/out" 7<&-
  # shellcheck disable=SC2094
  exec 7<>"$job_dir/err" 5<"$job_dir/err" 6>"$job_dir/err" 7<&-
  rm -f "$job_dir/out" "$job_dir/err"
  printf '' >"$job_dir/out.0" &&
    printf '' >"$job_dir/err.0" &&
    printf '%-40s\n' '0 run' >"$job_dir/out.lost" &&
    printf '%-40s\n' '0 run' >"$job_dir/err.lost" &&
    printf '%-80s\n' - >"$job_dir/status.new"
}

# On disk before the program starts: after a power cut, a directory without the file "started" means
# that the program never ran.
job_mark() {
  printf '%s\n' "$job_boot $job_pid $job_group $job_begin $job_out $job_err $job_watcher \
$job_limit $job_segment $(date +%s)" >"$job_dir/started.new" &&
    mv -f "$job_dir/started.new" "$job_dir/started" || return 1
  job_sync "$job_dir/started" "$job_dir" "$job_top"
  # The names of new directories above it too.
  job_part=$job_top
  while [ -n "$job_made" ] && [ -n "$job_part" ]; do
    job_part=${job_part%/*}
    job_sync "${job_part:-/}"
  done
}

# Waits until the output that the program has written is stored. Its children may keep the output
# open, so the wait has a limit of 2 s, or more where sleep knows no fractions.
job_settle() {
  job_turn=0
  until read -r job_lost_out job_out_end <"$job_dir/out.lost" &&
    read -r job_lost_err job_err_end <"$job_dir/err.lost" &&
    [ "$job_out_end $job_err_end" = 'end end' ] || [ "$job_turn" -ge 100 ]; do
    sleep 0.02 || {
      sleep 1
      job_turn=$((job_turn + 33))
    }
    job_turn=$((job_turn + 1))
  done
}

job_wrapper() {
  # /proc/self is the process that opens it: this subshell, while $$ is the first shell.
  read -r job_stat </proc/self/stat
  job_pid=${job_stat%% *}
  # shellcheck disable=SC2086  # the fields of the line
  job_fields ${job_stat##*) }
  read -r job_boot </proc/sys/kernel/random/boot_id
  job_late=0 job_watcher=0
  trap 'job_late=1' USR1
  job_prepare || job_fail 83 "$job_dir: cannot be written"
  # A function with redirections would keep the original descriptors open, and the pipes with them.
  (
    exec <&3 >/dev/null 3<&- 4>&- 5<&- 6>&-
    job_copy out
  ) &
  job_out=$!
  (
    exec <&5 >/dev/null 3<&- 4>&- 5<&- 6>&-
    job_copy err
  ) &
  job_err=$!
  exec 3<&- 5<&-
  if [ "$job_seconds" -gt 0 ]; then
    (
      exec >/dev/null 4>&- 6>&-
      job_watch
    ) &
    job_watcher=$!
  fi
  job_mark || job_fail 83 "$job_dir: cannot be written"
  # A signal to the group ends the program, and this shell stores its status. Traps are reset in the
  # program; an ignored signal would be ignored there too.
  trap : INT TERM HUP
  exec >/dev/null
  kill -KILL "$job_middle"
  (
    exec 4>&- 6>&-
    job_sweep
  ) &
  job_in=/dev/null
  [ ! -e "$job_dir/in" ] || job_in=$job_dir/in
  # exec: PROGRAM may have the name of a function or a builtin of this shell.
  (
    umask "$job_mask"
    [ -z "$job_directory" ] || cd -- "$job_directory" || exit 126
    exec "$@"
  ) <"$job_in" >&4 2>&6 4>&- 6>&-
  job_code=$?
  exec 4>&- 6>&-
  job_settle
  until job_publish || [ ! -d "$job_dir" ]; do
    sleep 1
  done
  job_sync "$job_dir"
}
)sh";

const char kStart[] = R"sh(
job_mode=$1 job_top=$2 job_id=$3 job_limit=$4 job_segment=$5 job_seconds=$6
job_prefix=$7 job_days=$8 job_directory=$9
shift 9
job_text=$1 job_token=$2
shift 2
job_dir=$job_top/$job_id
job_made=
for job_name in dd df find ls mkdir mkfifo mv rm sleep sync tee wc; do
  command -v "$job_name" >/dev/null || job_fail 88 "$job_name: no such program"
done
job_check "$job_top" make

# The job exists. A caller that does not know what has become of its request sends it again: the
# token tells whether it was this one.
job_refuse() {
  if read -r job_line <"$job_dir/token" && [ "$job_line" = "$job_token" ]; then
    job_fail 89 "$job_dir: was started by this caller"
  fi
  job_fail 80 "$job_dir: exists"
}

# mkdir either makes the directory or fails: of two starts with the same ID one wins.
if [ "$job_mode" != run ]; then
  if ! job_said=$(mkdir "$job_dir" 2>&1); then
    if [ -e "$job_dir" ] || [ -L "$job_dir" ]; then
      job_refuse
    fi
    job_fail 82 "$job_said"
  fi
  if ! printf '%s\n' "$job_token" >"$job_dir/token" ||
    ! printf '%s\n' "$job_text" >"$job_dir/command" ||
    { [ "$job_mode" = claim ] && ! printf '' >"$job_dir/in"; }; then
    rm -rf "$job_dir"
    job_fail 83 "$job_dir: cannot be written"
  fi
elif ! mkdir "$job_dir/go"; then
  [ -d "$job_dir" ] || job_fail 86 "$job_dir: no such job"
  job_refuse
fi
if [ "$job_mode" = claim ]; then
  echo claimed
  exit
fi

# The wrapper continues when this shell has ended. It is not started with "&", because a shell without
# job control makes such a command ignore SIGINT for ever, and so would the program. Instead the
# wrapper kills the subshell that waits for it.
(
  read -r job_middle _ </proc/self/stat
  (job_wrapper "$@")
  exit
)
job_end=$?
if [ "$job_end" -eq 137 ]; then
  echo started
  exit
fi
rm -rf "$job_dir"
exit "$job_end"
)sh";

const char kShow[] = R"sh(
job_top=$1
job_check "$job_top" ''
read -r job_boot </proc/sys/kernel/random/boot_id
printf 'boot %s\n' "$job_boot"

# The wrapper ends after it has stored the status: look for it first.
job_show() {
  [ -d "$1" ] && [ ! -L "$1" ] || return
  printf 'job %s\n' "${1##*/}"
  if read -r job_line <"$1/started"; then
    printf 'started %s\n' "$job_line"
    # shellcheck disable=SC2086  # the fields of the line
    ! job_alive $job_line || echo alive
  fi
  ! read -r job_line <"$1/status" || printf 'status %s\n' "$job_line"
  ! read -r job_line <"$1/command" || printf 'command %s\n' "$job_line"
}
if [ $# -gt 1 ]; then
  job_show "$job_top/$2"
  exit 0
fi
for job_dir in "$job_top"/*; do
  case ${job_dir##*/} in
    *[!A-Za-z0-9._-]*) ;;
    *) job_show "$job_dir" ;;
  esac
done
exit 0
)sh";

const char kSignal[] = R"sh(
job_top=$1 job_dir=$1/$2 job_name=$3
job_check "$job_top" ''
[ -d "$job_dir" ] || job_fail 86 "$job_dir: no such job"
read -r job_line <"$job_dir/started" || job_fail 84 "$job_dir: is not started"
# shellcheck disable=SC2086  # the fields of the line
set -- $job_line
if [ -e "$job_dir/status" ] || ! job_alive "$1" "$2" "$3" "$4"; then
  job_fail 85 "$job_dir: does not run"
fi
# Without "--", which the kill of busybox does not know.
case $job_name in
  KILL) job_kill "$3" "$2" "$5" "$6" "$7" ;;
  END)
    kill -TERM "-$3" || job_fail 85 "$job_dir: does not run"
    # Later, because the daemon waits for the end of this text.
    (
      trap '' INT TERM HUP
      sleep 2
      if [ ! -e "$job_dir/status" ] && job_alive "$1" "$2" "$3" "$4"; then
        job_kill "$3" "$2" "$5" "$6" "$7"
      fi
    ) >/dev/null &
    ;;
  *) kill "-$job_name" "-$3" || job_fail 85 "$job_dir: does not run" ;;
esac
echo sent
)sh";

const char kRemove[] = R"sh(
job_top=$1
job_check "$job_top" ''
if [ ! -d "$job_top/$2" ] || [ -L "$job_top/$2" ]; then
  job_fail 86 "$job_top/$2: no such job"
fi
job_idle "$job_top/$2" || job_fail 87 "$job_top/$2: runs"
job_erase "$2" || job_fail 83 "$job_top/$2: cannot be removed"
echo removed
)sh";

// Joins @p parts without their comments, empty lines and indentation, which the device does not
// need. No string in them continues on a line that begins with a blank or with '#'.
std::string withoutComments(std::initializer_list<std::string_view> parts) {
  std::string text;
  for (std::string_view part : parts) {
    while (!part.empty()) {
      const std::size_t end = std::min(part.find('\n'), part.size() - 1);
      std::string_view line = part.substr(0, end + 1);
      line.remove_prefix(std::min(line.find_first_not_of(' '), line.size()));
      if (line != "\n" && line.substr(0, 1) != "#") {
        text.append(line);
      }
      part.remove_prefix(end + 1);
    }
  }
  return text;
}

}  // namespace

const std::string& startScript() {
  static const std::string text =
      withoutComments({kMask, kCommon, kErase, kKill, kCopy, kWrapper, kStart});
  return text;
}

const std::string& showScript() {
  static const std::string text = withoutComments({kCommon, kShow});
  return text;
}

const std::string& signalScript() {
  static const std::string text = withoutComments({kCommon, kKill, kSignal});
  return text;
}

const std::string& removeScript() {
  static const std::string text = withoutComments({kCommon, kErase, kRemove});
  return text;
}

}  // namespace runel
