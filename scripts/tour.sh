# The tour of ./run: steps against a node in a fresh directory, each checked. Sourced by ./run, which
# has built build/release/bin.

bin=build/release/bin
tree=examples/small_cell.jsonl
steps=0
wrong=0
is_up=false

if [[ -t 1 ]]; then
    bold=$'\e[1m' dim=$'\e[2m' green=$'\e[32m' red=$'\e[31m' plain=$'\e[0m'
else
    bold='' dim='' green='' red='' plain=''
fi

title() { printf '\n%s%s%s\n' "$bold" "$*" "$plain"; }

# check TEXT CONDITION...: a step that is as expected when the condition holds.
check() {
    local text=$1
    shift
    steps=$((steps + 1))
    if "$@"; then
        printf '  %sok%s    %s\n' "$green" "$plain" "$text"
    else
        wrong=$((wrong + 1))
        printf '  %sWRONG%s %s\n' "$red" "$plain" "$text"
    fi
}

# try COMMAND...: shows and runs one of the programs; its output is in $output, its exit code in $code.
try() {
    printf '%s$ %s%s\n' "$dim" "$*" "$plain"
    code=0
    output=$("$bin/$1" "${@:2}" 2>&1) || code=$?
}

# show LINES: the first lines of what was printed.
show() {
    local count
    count=$(wc -l <<<"$output")
    head -n "$1" <<<"$output" | cut -c1-110 | sed 's/^/  /'
    ((count <= $1)) || printf '  %s... %d lines in all%s\n' "$dim" "$count" "$plain"
}

equal() {
    [[ $1 == "$2" ]] && return
    printf '        found: %s\n        expected: %s\n' "$1" "$2"
    return 1
}

leave() {
    local result=$?
    trap - EXIT INT TERM
    if $is_up; then
        "$bin/tamo_node" down "$directory" || result=1
    fi
    if ((result == 0)); then
        rm -rf "$directory"
    else
        echo "The node's files are kept in $directory (log: $directory/log)" >&2
    fi
    exit "$result"
}

boot() {
    directory=$(mktemp -d /tmp/tamo_run.XXXXXX)
    trap leave EXIT
    trap 'exit 130' INT TERM
    title "A simulated node boots"
    try tamo_node up "$directory"
    show 30
    check "the node is up and ready" equal "$code" 0
    ((code == 0)) || exit 1
    is_up=true
    eval "$("$bin/tamo_node" env "$directory")"
}

# Values as they come back from the service, one object a line; keys sorted, defaults filled in.
normal_form() {
    jq -cS '{dn, MOInstance: (.MOInstance // 1), isMOMObject: (if .isMOMObject == null then true else .isMOMObject end),
             system: (.system // false),
             attributes: ((.attributes // {}) | map_values({type, value, persistent: (.persistent // false),
                                                            hidden: (.hidden // false)}))}' "$1" | sort
}

load() {
    title "A small cell's tree is loaded by request messages"
    printf '%s$ tamoctl import %s%s\n' "$dim" "$tree" "$plain"
    code=0
    local from=$EPOCHREALTIME
    "$bin/tamoctl" import "$tree" || code=$?
    load_seconds=$(jq -n "$EPOCHREALTIME - $from")
    check "every object was taken" equal "$code" 0
    ((code == 0)) || exit 1
}

node_is_up() { [[ $("$bin/tamo_node" status "$directory" | jq -r .state) == up ]]; }

stay() {
    cat <<TEXT

The node stays up in $directory until Ctrl-C. In another terminal:

  cd $PWD && eval \$($bin/tamo_node env $directory)
  $bin/tamoctl tree ManagedElement=1,FAPService=1
  $bin/tamoctl get ManagedElement=1
  $bin/tamoctl set ManagedElement=1 userLabel=mine

TEXT
    trap 'stopped=true' INT TERM
    stopped=false
    while ! $stopped && node_is_up; do
        sleep 1 || true
    done
    trap '' INT TERM # from here on the stop runs to its end
    if ! node_is_up; then # asked again: Ctrl-C may have hit the question
        is_up=false
        echo "The node has ended by itself:" >&2
        "$bin/tamo_node" status "$directory" >&2
        exit 1
    fi
    stop
    ((wrong == 0)) || exit 1
}

tour() {
    read_back
    look_around
    change
    transaction
    delete
    report
    follow
    wifi
    base_band
    store
    fall_back
}

read_back() {
    title "The tree is read back and compared"
    printf '%s$ tamoctl export ManagedElement=1%s\n' "$dim" "$plain"
    "$bin/tamoctl" export ManagedElement=1 >"$directory/export.jsonl"
    objects=$(wc -l <"$directory/export.jsonl")
    attributes=$(jq -s 'map(.attributes | length) | add' "$directory/export.jsonl")
    check "$objects objects, as in $tree" equal "$objects" "$(wc -l <"$tree")"
    check "every object and value is the one that was loaded" \
        diff -q <(normal_form "$tree") <(normal_form "$directory/export.jsonl")
}

look_around() {
    title "Looking around"
    try tamoctl tree ManagedElement=1,FAPService=1
    show 8
    check "a part of the tree" equal "$code" 0
    try tamoctl get ManagedElement=1
    show 12
    check "one object" equal "$code" 0
    try tamoctl get ManagedElement=1 userLabel
    check "one value: $output" equal "$output" node
    try tamoctl --json class FAPService
    show 1
    found=$(jq length <<<"$output")
    check "all objects of a class: $found" equal "$found" "$(grep -cE '"dn":"([^"]*,)?FAPService=[^",]*"' "$tree")"
}

change() {
    title "Changing a value"
    try tamoctl set ManagedElement=1 "userLabel=It's a node"
    check "the service took it" equal "$code" 0
    try tamoctl get ManagedElement=1 userLabel
    check "and holds it now: $output" equal "$output" "It's a node"
}

is_subscribed() { "$bin/tamoctl" subscriptions | grep -q "$1"; }

# watch_for COUNT: a watcher in the background that is subscribed when this returns.
watch_for() {
    local tries command=(tamoctl watch --transactions --all every --count "$1" --timeout 30)
    printf '%s$ %s &%s\n' "$dim" "${command[*]}" "$plain"
    "$bin/${command[0]}" "${command[@]:1}" >"$directory/watched" &
    watcher=$!
    for ((tries = 0; tries < 100; ++tries)); do
        ! is_subscribed TRANSACTIONS || break
        sleep 0.1
    done
}

# What the watcher was told, when it has ended.
watched() {
    code=0
    wait "$watcher" || code=$?
    output=$(<"$directory/watched")
    show 12
}

transaction() {
    title "A watcher sees a transaction arrive"
    watch_for 3
    try tamoctl subscriptions
    show 6
    check "the watcher is subscribed" equal "$code" 0
    try tamoctl transaction -- set ManagedElement=1 userLabel=together -- insert ManagedElement=1,Antenna=7 height:UINT32=30
    show 6
    check "two writes, committed as one" equal "$code" 0
    watched
    check "the watcher was told of both objects and of the transaction" equal "$code" 0
    check "with the new value" grep -q 'ManagedElement=1.*together' <<<"$output"
    check "and the new object" grep -q 'ManagedElement=1,Antenna=7.*30' <<<"$output"
    try tamoctl transaction -- set ManagedElement=1 userLabel=never -- delete ManagedElement=1,Absent=1
    show 3
    check "a transaction whose second line fails is given up" equal "$code" 3
    try tamoctl get ManagedElement=1 userLabel
    check "and nothing of it stays: $output" equal "$output" together
    try tamoctl delete ManagedElement=1,Antenna=7
    check "the antenna goes again" equal "$code" 0
    try tamoctl clients
    show 4
    check "who is connected" equal "$code" 0
}

delete() {
    title "Deleting: not while another object refers to it"
    try tamoctl insert ManagedElement=1,Antenna=1 reservedBy:text=
    check "an antenna" equal "$code" 0
    try tamoctl insert ManagedElement=1,Sector=1 antennaRef:reference=ManagedElement=1,Antenna=1
    check "a sector that refers to it" equal "$code" 0
    try tamoctl get ManagedElement=1,Antenna=1 reservedBy
    check "the service keeps the other direction: $output" equal "$output" ManagedElement=1,Sector=1
    try tamoctl delete ManagedElement=1,Antenna=1
    show 3
    check "deleting the antenna is refused" equal "$code" 1
    try tamoctl exists ManagedElement=1,Antenna=1
    check "it is still there" equal "$code" 0
    try tamoctl delete ManagedElement=1,Sector=1
    check "the sector can go" equal "$code" 0
    try tamoctl delete ManagedElement=1,Antenna=1
    check "then the antenna can go" equal "$code" 0
    try tamoctl exists ManagedElement=1,Antenna=1
    check "and is gone" equal "$code" 3
}

report() {
    title "A change made through the management agent is announced"
    jq -n '{objects: [{dn: "ManagedElement=1,FAPService=1,Alarm=4", operation: "I",
                       attributes: [{name: "severity", type: "INT32", value: "3"}]}]}' >"$directory/report.json"
    watch_for 2
    try tamo_node report "$directory" "$directory/report.json"
    check "the agent reports an object of its own" equal "$code" 0
    watched
    check "the watcher was told of the object and of the transaction" equal "$code" 0
    check "with the value, which came as text" grep -q 'FAPService=1,Alarm=4 severity = 3' <<<"$output"
    try tamoctl exists ManagedElement=1,FAPService=1,Alarm=4
    check "the object stays with the agent: it is not in the tree" equal "$code" 3
}

# Two names of one switch.
ran=ManagedElement=1,FAPService=1,CellConfig=1,UMTS=1,RAN=1
same_switch() {
    try tamoctl get "$ran" "$1"
    check "$2: $output" equal "$output" "$3"
}

follow() {
    title "A renamed attribute and its successor carry the same value"
    try tamoctl sync-pairs "$directory/conf/deprecated_attribute_mapping.xml"
    show 4
    check "the node's mapping file, looked at without the service" equal "$code" 0
    try tamoctl enable-sync
    show 1
    check "the service takes it" equal "$code" 0
    try tamoctl set "$ran" HSFlag=true
    check "the old name is written" equal "$code" 0
    same_switch HSEnable "the new one has followed" true
    try tamoctl set "$ran" HSEnable=false
    check "the new name is written" equal "$code" 0
    same_switch HSFlag "the old one has followed" false
    try tamoctl set "$ran" HSFlag=true
    check "once more, to be looked at after the restart" equal "$code" 0
}

# wifi_shows STATUS: within a few seconds.
wifi_shows() {
    local tries
    for ((tries = 0; tries < 50; ++tries)); do
        [[ $("$bin/tamoctl" get "$module" operationalState) != "$1" ]] || return 0
        sleep 0.1
    done
    return 1
}

wifi() {
    title "The Wi-Fi module's status shows in the tree"
    local equipment=ManagedElement=1,Equipment=1
    module=$equipment,RbsUnit=1,WifiModule=1
    try tamoctl transaction -- insert $equipment -- insert $equipment,RbsUnit=1 -- insert $module operationalState:INT32=0
    check "the module's object" equal "$code" 0
    try tamo_node wifi "$directory" 1
    check "the middleware tells its status" equal "$code" 0
    try tamoctl get $module operationalState
    check "it is there at once: $output" equal "$output" 1
    try tamo_node wifi "$directory" 0 1 0 2
    check "a burst of them" equal "$code" 0
    check "the last one is there when it has settled" wifi_shows 2
    try tamo_node wifi "$directory" 7 --magic 0xDEADBEEF
    try tamo_node log "$directory" --lines 1
    show 1
    check "a message with another magic word is told in the log" grep -qi deadbeef <<<"$output"
    check "and changes nothing" wifi_shows 2
}

base_band() {
    title "What the base-band side calls it"
    local cell=ManagedElement=1,FAPService=1
    try tamoctl mapping $cell
    check "an object: $output, as in the node's mapping file" \
        grep -q "dn=\"$cell\" bo-class=\"${output#0x}\"" "$directory/conf/common_mapping.xml"
    try tamoctl mapping DeviceType
    check "an attribute: $output" \
        grep -q "name=\"DeviceType\" bo-attribute=\"${output#0x}\"" "$directory/conf/common_mapping.xml"
    try tamoctl mapping $cell,Alarm=4
    check "what has none is not found" equal "$code" 3
}

partition() { "$bin/tamo_node" status "$directory" | jq .started_partition; }

store() {
    title "What is persistent survives a restart"
    try tamoctl insert OAM AI_phase:INT32=4 --persistent AI_phase --not-mom
    check "auto-integration is completed: from here on the configuration is stored" equal "$code" 0
    try tamoctl insert ManagedElement=1,Site=1 name=north note=draft --persistent name
    check "an object with a persistent name and a note that is not" equal "$code" 0
    try tamoctl store
    check "stored to flash" equal "$code" 0
    try tamoctl check "$TAMO_DB_FILE_PATH/pRBSdb"
    show 12
    check "a start would load the file" equal "$code" 0
    try tamo_node reset "$directory"
    show 2
    check "the node is reset and comes up again" equal "$code" 0
    try tamoctl get ManagedElement=1,Site=1 name
    check "the name is there: $output" equal "$output" north
    try tamoctl get ManagedElement=1,Site=1 note
    check "the note is gone, as it should be" equal "$code" 3
    same_switch HSEnable "both names of the switch are kept" true
    stored=$("$bin/tamoctl" export ManagedElement=1 | wc -l)
}

fall_back() {
    title "A configuration that cannot be trusted"
    try tamo_node corrupt "$directory" pRBSdb --how garbage
    check "the stored configuration of partition $(partition) is overwritten with garbage" equal "$code" 0
    try tamoctl check "$TAMO_DB_FILE_PATH/pRBSdb"
    show 12
    check "a start would not take it" equal "$code" 1
    try tamo_node reset "$directory"
    show 2
    check "the node is reset, finds the damage, falls back and comes up" equal "$code" 0
    check "on the other partition" equal "$(partition)" 2
    try tamo_node log "$directory"
    output=$(grep -E "SysEvnt|corrupted" <<<"$output" || true)
    show 4
    check "the event is in the log" grep -q "SysEvnt: pRBSdb corrupted, requesting SW fallback" <<<"$output"
}

stop() {
    title "The node stops in order"
    "$bin/tamo_node" status "$directory" >"$directory/status"
    try tamo_node down "$directory"
    is_up=false
    show 5
    check "the service ended by itself, with exit code 0" equal "$code" 0
}

summary() {
    title "Summary"
    cat <<TEXT
  objects read back       $objects
  attributes read back    $attributes
  load time               $(printf '%.2f' "$load_seconds") s ($(jq -n "$objects / $load_seconds | floor") objects/s, one request each)
  objects after a restart $stored (those with persistent attributes, and what is above them)
  faults, resets          $(jq '.faults | length' "$directory/status"), $(jq '.resets | length' "$directory/status")
  node's /tmp, /dev/shm   $(jq -r .isolation "$directory/status")
  steps as expected       $((steps - wrong)) of $steps
  time                    $((SECONDS - begin)) s
  programs                $bin
TEXT
    ((wrong == 0)) || exit 1
    echo
    echo "${green}Everything as expected.${plain} Try ./run --stay, ./test, and README.md."
}
