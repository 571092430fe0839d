# Sourced by the scripts in tools/. quietly LABEL LOG COMMAND...: runs the
# command with all its output in the file LOG and prints one line, the label
# and the time it took; when the command fails, the log follows that line.
quietly() {
    local label=$1 log=$2 start=$SECONDS status=0
    shift 2
    mkdir -p "$(dirname "$log")"
    printf '%s ... ' "$label"
    "$@" >"$log" 2>&1 || status=$?
    if ((status == 0)); then
        echo "done ($((SECONDS - start)) s)"
    else
        echo "FAILED (status $status), output in $log:"
        cat "$log"
    fi
    return $status
}
