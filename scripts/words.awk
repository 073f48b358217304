# Prints each term of a list that the prose of a file contains: "FILE:LINE: found X, preferred: Y".
#
#     awk -v texts=0|1 -f scripts/words.awk TERMS FILE...
#
# Prose is: the comments of C++ and scripts and, with texts=1, their string literals; all lines of
# documents and manual pages except their examples. Skips code in backquotes. Each line of the
# list is a regex for whole words in lower case, a tab, and the preferred words; a match may continue on
# the next line.

function kind_of(name) {
    if (name ~ /\.(cpp|h|c)$/) return "c"
    if (name ~ /\.md$/) return "markdown"
    if (name ~ /\.[1-9](\.in)?$/) return "manual"
    return "script"
}

# The comments of one line of C++, and its string literals if `texts`. `state` is "comment" within a
# block comment.
function prose_of_c(line,    prose, i, c, pair) {
    prose = ""
    if (state == "comment") sub(/^[ \t]*\*[ \t]/, "", line)
    for (i = 1; i <= length(line); i++) {
        c = substr(line, i, 1)
        pair = substr(line, i, 2)
        if (state == "comment") {
            if (pair == "*/") { state = "code"; i++ } else prose = prose c
        } else if (state == "string" || state == "character") {
            if (c == "\\") { c = " "; i++ }
            if (c == (state == "string" ? "\"" : "'")) { state = "code"; prose = prose " " }
            else if (state == "string" && texts) prose = prose c
        } else if (pair == "//") {
            return prose substr(line, i + 2)
        } else if (pair == "/*") { state = "comment"; i++ }
        else if (c == "\"") state = "string"
        else if (c == "'" && substr(line, i - 1, 1) !~ /[0-9]/) state = "character"
    }
    if (state != "comment") state = "code"
    return prose
}

# The comments of one line of a script, and its string literals if `texts`. `state` is the open quote. A
# backslash in single quotes escapes only these, as in Python.
function prose_of_script(line,    prose, i, c) {
    prose = ""
    for (i = 1; i <= length(line); i++) {
        c = substr(line, i, 1)
        if (c == "\\" && (state != "'" || substr(line, i + 1, 1) == "'")) {
            i++
        } else if (state != "code") {
            if (c == state) { state = "code"; prose = prose " " } else if (texts) prose = prose c
        } else if (c == "#" && substr(" " line, i, 1) ~ /[ \t]/) {
            return prose substr(line, i + 1)
        } else if (c == "\"" || c == "'") {
            state = c
        }
    }
    return prose
}

function prose_of_markdown(line) {
    if (line ~ /^[ ]*```/) { state = state == "example" ? "code" : "example"; return "" }
    return state == "example" || line ~ /^    / ? "" : line
}

function prose_of_manual(line) {
    if (line ~ /^\.(EX|nf)/) state = "example"
    if (line ~ /^\.(EE|fi)/) state = "code"
    return state == "example" ? "" : line
}

function prose_of(line) {
    if (kind == "c") return prose_of_c(line)
    if (kind == "markdown") return prose_of_markdown(line)
    if (kind == "manual") return prose_of_manual(line)
    return prose_of_script(line)
}

# Prints the terms that begin in `first`, a line of prose that `second` follows.
function check(file, number, first, second,    text, i, from, found) {
    if (first ~ /^[ \t]*$/) return
    text = " " first " " second " "
    for (i = 1; i <= terms; i++) {
        if (!match(text, regex[i]) || RSTART > length(first) + 1) continue
        found = substr(text, RSTART + 1, RLENGTH - 2)
        printf "%s:%d: found \"%s\", preferred: %s\n", file, number, found, preferred[i]
        count++
    }
}

function clean(line) {
    line = tolower(line)
    gsub(/`[^`]*`/, "``", line)
    gsub(/^[ \t]+|[ \t]+$/, "", line)
    return line
}

FILENAME == ARGV[1] {
    split($0, term, "\t")
    terms++
    regex[terms] = "[^a-z_0-9-](" term[1] ")[^a-z_0-9-]"
    preferred[terms] = term[2]
    next
}

FNR == 1 {
    check(file, number, previous, "")
    previous = ""
    state = "code"
    file = FILENAME
    kind = kind_of(file)
}

{
    current = clean(prose_of($0))
    check(file, FNR - 1, previous, current)
    previous = current
    number = FNR
}

END {
    check(file, number, previous, "")
    exit count > 0
}
