# shellcheck shell=bash
# The sandbox where the machine refuses namespaces: the panel is laid out on the machine itself, and taken away again by
# sandbox/caretaker. Sourced by script/sandbox.

# shellcheck source=sandbox/layout.sh
. "$(dirname "${BASH_SOURCE[0]}")/layout.sh"

# One at a time, on the whole machine; the caretaker keeps the lock until it is done.
lock_machine() {
    exec {lock}</etc
    flock --nonblock "$lock" && return
    echo "sandbox: waiting for another sandbox on this machine to end" >&2
    flock "$lock"
}

refuse_existing_paths() {
    local directory
    for directory in "${private_directories[@]}"; do
        [[ ! -e $directory && ! -L $directory ]] ||
            die "this machine refuses namespaces, and in place I would overwrite $directory, which exists; nothing was done"
    done
}

# The directories above the private ones that do not exist yet, deepest first.
missing_parents() {
    local directory
    for directory in "${private_directories[@]}"; do
        directory=$(realpath --canonicalize-missing "$directory")
        while directory=${directory%/*} && [[ $directory && ! -e $directory ]]; do
            echo "$directory"
        done
    done | sort --unique --reverse
}

start_caretaker() {
    local parents
    mapfile -t parents < <(missing_parents)
    mkdir -m 700 "$saved_accounts"
    cp -a /etc/passwd /etc/group "$saved_accounts/"
    mkfifo "$saved_accounts/alive" "$saved_accounts/ended"
    setsid --fork "$sandbox/caretaker" "HALYARD_SANDBOX_MARK=$mark" "${parents[@]}"
    exec {alive}>"$saved_accounts/alive" {ended}<"$saved_accounts/ended"
}

# The caretaker sees our end by these descriptors, so nobody else may hold them.
release_descriptors() {
    exec {alive}>&- {ended}<&- {lock}<&-
}

await_caretaker() {
    trap '' INT TERM HUP QUIT
    exec {alive}>&-
    read -r _ <&"$ended" || true
}

run_in_place() {
    local sample=$1 status=0 mark
    shift
    [[ ${HALYARD_SANDBOX-} != in-place ]] || die "there is a sandbox around me already, and this machine allows only one"
    lock_machine
    refuse_existing_paths
    echo "sandbox: this machine refuses namespaces; working in place, everything is put back at the end" >&2
    trap 'exit 130' INT
    trap 'exit 143' TERM
    trap 'exit 129' HUP
    mark=$$.$RANDOM$RANDOM
    start_caretaker
    trap await_caretaker EXIT
    export HALYARD_SANDBOX=in-place HALYARD_SANDBOX_MARK=$mark
    lay_out
    (release_descriptors && start_database)
    if [[ $sample == with_sample ]]; then
        # shellcheck source=sandbox/sample.sh
        (release_descriptors && . "$sandbox/sample.sh")
    fi
    run_command "$@" || status=$?
    exit "$status"
}
