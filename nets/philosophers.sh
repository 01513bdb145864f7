#!/bin/sh
# Prints the net of N dining philosophers: philosophers.sh N > philosophers.pnml
# Each takes either fork first, then the other, eats, and puts both back. Once all
# have taken the one on the same side, all wait, and the net is at rest.
set -eu

case ${1-} in
'' | *[!0-9]* | 0* | 1)
    echo "philosophers.sh: give the number of philosophers, 2 or more" >&2
    exit 64
    ;;
esac

place() { # id name tokens
    echo "    <place id=\"$1\"><name><text>$2</text></name><initialMarking><text>$3</text></initialMarking></place>"
}

transition() { # id name
    echo "    <transition id=\"$1\"><name><text>$2</text></name></transition>"
}

arcs() { # node node...: from the first to each other
    source=$1
    shift
    for target; do
        echo "    <arc id=\"$source-$target\" source=\"$source\" target=\"$target\"/>"
    done
}

cat <<END
<?xml version="1.0" encoding="UTF-8"?>
<pnml xmlns="http://www.pnml.org/version-2009/grammar/pnml">
<net id="philosophers-$1" type="http://www.pnml.org/version-2009/grammar/ptnet">
  <name><text>$1 dining philosophers</text></name>
END
i=1
while [ "$i" -le "$1" ]; do
    right=$((i % $1 + 1))
    echo "  <page id=\"seat-$i\">"
    place "thinks-$i" "$i thinks" 1
    place "has-left-$i" "$i has the left fork" 0
    place "has-right-$i" "$i has the right fork" 0
    place "eats-$i" "$i eats" 0
    place "fork-$i" "fork $i" 1
    transition "left-$i" "$i takes left"
    transition "then-right-$i" "$i takes right, too"
    transition "right-$i" "$i takes right"
    transition "then-left-$i" "$i takes left, too"
    transition "done-$i" "$i is done"
    arcs "thinks-$i" "left-$i" "right-$i"
    arcs "fork-$i" "left-$i" "then-left-$i"
    arcs "fork-$right" "right-$i" "then-right-$i"
    arcs "left-$i" "has-left-$i"
    arcs "right-$i" "has-right-$i"
    arcs "has-left-$i" "then-right-$i"
    arcs "has-right-$i" "then-left-$i"
    arcs "then-right-$i" "eats-$i"
    arcs "then-left-$i" "eats-$i"
    arcs "eats-$i" "done-$i"
    arcs "done-$i" "thinks-$i" "fork-$i" "fork-$right"
    echo "  </page>"
    i=$((i + 1))
done
echo "</net>"
echo "</pnml>"
