# SPDX-FileCopyrightText: The kddc authors
# SPDX-License-Identifier: Apache-2.0
#
# Takes the commands out of a document, as lines "LINE KIND TEXT": `hidden` is a command of a comment,
# `command` one that readers see, `expected` a line that it prints, `left` a command that is not
# run, with `reason` before it; `wrong` is a command that no test would ever see.
function say(kind, text) { printf "%d\t%s\t%s\n", FNR, kind, text }
function close_command() { if (command != "") { say(reason == "" ? "command" : "left", command); command = "" } }

/^<!-- run: .* -->$/ { say("hidden", substr($0, 11, length - 14)); next }
/^<!-- not run: .* -->$/ { reason = substr($0, 15, length - 18); next }
!inside && /^```console$/ { inside = 1; if (reason != "") say("reason", reason); next }
inside == 1 && /^```$/ { close_command(); inside = 0; reason = ""; next }
inside == 1 && continued { continued = /\\$/; sub(/\\$/, "", command); sub(/^ +/, ""); command = command $0; next }
inside == 1 && /^\$ / { close_command(); command = substr($0, 3); continued = /\\$/; next }
inside == 1 { close_command(); if (reason == "") say("expected", $0); next }

!inside && /^```(sh|bash|shell)$/ { say("wrong", $0) }
!inside && /^```/ { inside = 2; next }
inside == 2 && /^```$/ { inside = 0; next }
inside == 2 && /^[$#] / { say("wrong", $0) }
!inside && /^    [$#] / { say("wrong", $0) }
