# shellcheck shell=bash
# What the scripts share: their arguments, root's rights, and the namespace in which an ordinary user runs the agent.
# To be sourced.

# Prints the usage and ends the script when one of the arguments after it is --help.
answer_help() {
    local argument
    for argument in "${@:2}"; do
        if [[ $argument == --help ]]; then
            echo "$1"
            exit 0
        fi
    done
}

# Ends the script with what is wrong with its arguments, on standard error; 64 is sysexits' "usage error".
refuse_usage() {
    printf '%s: %s\nTry "scripts/%s --help".\n' "${0##*/}" "$1" "${0##*/}" >&2
    exit 64
}

refuse_argument() {
    refuse_usage "unknown argument \"$1\""
}

# Call it with the arguments from the option on. Ends the script when the option has no value.
require_value() {
    (($# > 1)) || refuse_usage "$1 needs a value"
}

# Likewise, when the value is no number from the least one on.
require_number() {
    local least=$1
    shift
    require_value "$@"
    if [[ ! $2 =~ ^(0|[1-9][0-9]{0,8})$ ]] || (($2 < least)); then
        refuse_usage "$1 takes a number from $least to 999999999, not \"$2\""
    fi
}

# Likewise, when the value is no program.
require_program() {
    require_value "$@"
    [[ -f $2 && -x $2 ]] || refuse_usage "$1 takes a program, which \"$2\" is not"
}

# Runs the command as root, through sudo for another user.
as_root() {
    if ((EUID == 0)); then
        env DEBIAN_FRONTEND=noninteractive "$@"
    elif command -v sudo >/dev/null; then
        sudo env DEBIAN_FRONTEND=noninteractive "$@"
    else
        echo "This needs root, and there is no sudo: $*" >&2
        return 1
    fi
}

setting_is() {
    [[ -r /proc/sys/$1 && $(<"/proc/sys/$1") == "$2" ]]
}

# The settings that refuse user namespaces here, as commands that change them.
namespace_settings() {
    if setting_is kernel/unprivileged_userns_clone 0; then
        echo "  sysctl kernel.unprivileged_userns_clone=1  # as root"
    fi
    if setting_is kernel/apparmor_restrict_unprivileged_userns 1; then
        echo "  sysctl kernel.apparmor_restrict_unprivileged_userns=0  # as root"
    fi
    if setting_is user/max_user_namespaces 0; then
        echo "  sysctl user.max_user_namespaces=10000  # as root"
    fi
}

# Why the agent, which runs as root only, cannot run for this user: what unshare says. Fails when it can.
why_no_agent_runs() {
    ((EUID != 0)) && ! unshare --map-root-user true 2>&1
}

# Ends the script where the agent cannot run; 77 is sysexits' "permission denied".
require_agent_can_run() {
    local problem settings
    problem=$(why_no_agent_runs) || return 0
    settings=$(namespace_settings)
    cat >&2 <<END
${0##*/}: The agent runs as root only. This user is not root, and the system refuses it a user namespace to be root in:
  $problem
Run scripts/${0##*/} as root, or permit user namespaces:
${settings:-"  No setting of the kernel refuses them here; in a container, its runtime may."}
END
    exit 77
}
