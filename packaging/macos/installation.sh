# The paths of an installation, and how to stop and start its job. Sourced by the other scripts of this folder. Runs in
# /bin/sh of macOS 10.15 and later, with the system's own commands only.
#
# SENTROVA_ROOT names a folder that stands for the system's "/", and SENTROVA_INSTALL_PATH where commands are looked
# for. Both are for the tests; sudo and the Installer do not pass them on.
# shellcheck shell=sh disable=SC2034  # what is set here is used by the readers

set -eu
umask 077
PATH=${SENTROVA_INSTALL_PATH:-/usr/bin:/bin:/usr/sbin:/sbin}
export PATH

label=com.kelvark.vantorix.sentrova.agent
# Signed into sentrovactl.
control_label=com.kelvark.vantorix.sentrova.control
receipt=com.kelvark.vantorix.sentrova.pkg
# The job's property list has it as well.
installation='/Library/Application Support/Sentrova'
configuration_files='Serverinfo.plist myconfigurations.plist schedules.plist'
# The job gives the agent 30 seconds to end before it is killed.
seconds_to_end=60

say() {
    echo "Sentrova agent: $*"
}

fail() {
    say "$*" >&2
    exit 1
}

# Sets the paths of the installation on the volume that is mounted at $1.
locate_on() {
    is_running_system=false
    volume=${1%/}
    if [ "$1" = / ]; then
        is_running_system=true
        volume=${SENTROVA_ROOT:-}
    fi
    home=$volume$installation
    bin=$home/bin
    conf=$home/conf
    logs=$home/logs
    archive=$home/logs/archive
    spool=$home/eventData
    # The manual page and the completions.
    share=$home/share
    # The last programs and job, to go back to when an upgrade fails.
    previous=$home/previous
    program=$bin/sentrova-agent
    control=$bin/sentrovactl
    job=$volume/Library/LaunchDaemons/$label.plist
    # What the agent could not write to its log; launchd makes the file, the job names it as well.
    errors=$volume/var/log/$label.log
}

# Where shells and manual readers look, and what lies there: a link to this file of the installation. Links, since users
# may own folders below /usr/local: root must not write to a file that such a user may have replaced.
each_link() {
    "$1" "$volume/usr/local/bin/sentrovactl" bin/sentrovactl
    "$1" "$volume/usr/local/share/man/man8/sentrovactl.8" share/sentrovactl.8
    "$1" "$volume/usr/local/share/zsh/site-functions/_sentrovactl" share/_sentrovactl
    "$1" "$volume/usr/local/etc/bash_completion.d/sentrovactl" share/sentrovactl.bash
}

# Whether the link $1 leads to the file $2 of the installation. The volume's mount point is not part of the link: it
# differs when the volume is the running system's.
is_our_link() {
    [ -L "$1" ] && [ "$(readlink "$1")" = "$installation/$2" ]
}

require_root() {
    [ "$(id -u)" -eq 0 ] || fail "this needs root; run it with sudo"
}

# A user who could replace one of these paths by a link or another folder could make root write to or delete any file.
refuse_what_is_not_ours() {
    for path in "$volume/Library" "$volume/Library/Application Support" "$volume/Library/LaunchDaemons" \
        "$home" "$bin" "$conf" "$logs" "$archive" "$spool" "$share" "$previous" "$job" "$bin"/* "$conf"/* "$share"/* \
        "$previous"/*; do
        [ ! -L "$path" ] || fail "$path is a symbolic link; nothing is done while it is there"
    done
    for path in "$home" "$bin" "$conf" "$logs" "$archive" "$spool" "$share" "$previous"; do
        [ -e "$path" ] || continue
        [ -d "$path" ] || fail "$path is no folder; nothing is done while it is there"
        [ "$(stat -f %u "$path")" -eq 0 ] || fail "$path does not belong to root; nothing is done while it is there"
    done
}

job_is_loaded() {
    launchctl print "system/$label" >/dev/null 2>&1
}

# Returns once the agent has ended; fails when it has not after a minute.
stop_job() {
    job_is_loaded || return 0
    # A job that needs time to end makes this fail, though it is ending.
    launchctl bootout "system/$label" >/dev/null 2>&1 || true
    waited=0
    while job_is_loaded; do
        [ "$waited" -lt "$seconds_to_end" ] || return 1
        sleep 1
        waited=$((waited + 1))
    done
}

# Fails if the job is still not loaded after the retries. The service manager may refuse a job for a moment after its
# stop, and the status of "load" is always 0.
start_job() {
    for attempt in 1 2 3; do
        [ "$attempt" -eq 1 ] || sleep 2
        launchctl bootstrap system "$job" || launchctl load -w "$job" || true
        if job_is_loaded; then
            return 0
        fi
    done
    return 1
}
