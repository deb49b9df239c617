# shellcheck shell=bash
# Completion of sentrovactl for bash 3.2 and later. To be sourced, for instance from ~/.bash_profile.

_sentrovactl_events='AUE_auth_user AUE_login AUE_logout AUE_lw_login AUE_lw_logout AUE_openssh AUE_rshd AUE_ssauthint
    AUE_ssh AUE_su AUE_sudo AUE_telnet'

# Adds what compgen makes of these arguments and of the word that is being typed.
_sentrovactl_add() {
    local word
    while IFS= read -r word; do
        COMPREPLY+=("$word")
    done < <(compgen "$@" -- "$current")
}

# Adds files (-f) or folders (-d). bash 3.2 has no compopt: there nothing is added, and readline completes the file.
_sentrovactl_add_paths() {
    type compopt >/dev/null 2>&1 || return 0
    compopt -o filenames 2>/dev/null
    _sentrovactl_add "$1"
}

# Adds the names of the spool's files that begin with one of these prefixes, where the user may read the folder.
_sentrovactl_add_spooled() {
    local prefix path names=''
    for prefix in "$@"; do
        for path in "$root/eventData/$prefix"*; do
            [[ ! -f $path ]] || names+=" ${path##*/}"
        done
    done
    _sentrovactl_add -W "$names"
}

# A list of names with commas: completes the last one.
_sentrovactl_add_events() {
    local listed='' event events=''
    [[ $current != *,* ]] || listed=${current%,*},
    for event in $_sentrovactl_events; do
        events+=" $listed$event"
    done
    _sentrovactl_add -W "$events"
}

_sentrovactl_options() {
    case $1 in
        '') echo --root ;;
        status) echo --json --prometheus ;;
        check | probe | spool | 'spool list' | 'spool show') echo --json ;;
        events) echo --volume --select --since --until --user --domain --host --excluded --format ;;
        watch) echo --select --user --domain --host --excluded --format ;;
        'spool retry') echo --all ;;
        replay) echo --since --yes --restart ;;
        diagnose) echo -o --no-events ;;
    esac
    echo -h --help --version
}

_sentrovactl_add_operands() {
    case $1 in
        '') _sentrovactl_add -W 'status check events watch spool probe sync replay diagnose' ;;
        check) _sentrovactl_add_paths -d ;;
        events) _sentrovactl_add_paths -f ;;
        spool) _sentrovactl_add -W 'list show retry' ;;
        'spool show' | 'spool retry') _sentrovactl_add_spooled event_ refused_ undelivered_ altered_ ;;
        *) _sentrovactl_add -W "$(_sentrovactl_options "$1")" ;;
    esac
}

_sentrovactl() {
    local current=${COMP_WORDS[COMP_CWORD]} root='/Library/Application Support/Sentrova' command='' option='' word i
    COMPREPLY=()
    # readline gives "--format=json" as three words.
    [[ $current != = ]] || current=''
    for ((i = 1; i < COMP_CWORD; i++)); do
        word=${COMP_WORDS[i]}
        if [[ $word == = ]]; then
            continue
        elif [[ $option ]]; then
            if [[ $option == --root ]]; then
                root=${word//[\\\"\']/}
            fi
            option=''
            continue
        fi
        case $word in
            --root | --volume | --select | --since | --until | --user | --domain | --host | --format | -o) option=$word ;;
            -*) ;;
            *) [[ $command && $command != spool ]] || command=${command:+$command }$word ;;
        esac
    done
    case $option in
        --root | --volume) _sentrovactl_add_paths -d ;;
        --select) _sentrovactl_add_events ;;
        --format) _sentrovactl_add -W 'json table csv' ;;
        -o) _sentrovactl_add_paths -f ;;
        '')
            if [[ $current == -* ]]; then
                _sentrovactl_add -W "$(_sentrovactl_options "$command")"
            else
                _sentrovactl_add_operands "$command"
            fi
            ;;
    esac
}

complete -o default -F _sentrovactl sentrovactl
