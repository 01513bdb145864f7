# Converts a header for Doxygen: comments become Doxygen's notation. In the headers, a
# comment applies to all declarations up to the next blank line. Leaves out deleted
# functions.

function indent_of(line) {
    match(line, /^ */)
    return RLENGTH
}

# Escapes `<` outside code, so that a header's name is not taken for a tag.
function escaped(line,    parts, count, i, result) {
    count = split(line, parts, "`")
    for (i = 1; i <= count; ++i) {
        if (i % 2 == 1)
            gsub(/</, "\\<", parts[i])
        result = result (i > 1 ? "`" : "") parts[i]
    }
    return result
}

BEGIN {
    classes = 0
    first = 1
    begins = 1  # whether this line can begin a declaration
}

# Skips the licence, which precedes the header's own comment.
NR == first && /SPDX-License-Identifier/ {
    ++first
    next
}

/^ *\/\// && !in_body {
    if (!in_comment)
        comment = ""
    in_comment = 1
    sub(/\/\/ ?/, "/// ")
    if ($0 !~ /\/\/\/     /)
        $0 = escaped($0)  # code is indented
    comment = comment $0 "\n"
    depth = indent_of($0)
    begins = 1
    if (NR == first)
        print "/// @file"
    print
    next
}

/^ *$/ && !in_body {
    comment = ""
    in_comment = 0
    begins = 1
    print
    next
}

/= delete;$/ && !in_body {
    in_comment = 0
    next
}

{
    here = indent_of($0)
    text = $0
    sub(/ *\/\/.*$/, "", text)
    if (classes > 0 && here == members[classes] - 4 && text ~ /^ *\}/)
        --classes

    declares = $0 !~ /^ *([}#{]|public:|protected:|private:)/
    if (begins && declares && !in_comment) {
        if (comment != "" && here == depth)
            printf "%s", comment
    }
    # A comment after a member describes that member.
    if (!in_body && !in_comment && classes > 0 && here == members[classes] && /;  +\/\/ /) {
        sub(/\/\/ /, "///< ")
    }
    in_comment = 0

    # A body ends at the brace with the declaration's own indentation.
    if (in_body)
        in_body = here > body || text !~ /^ *\}/
    else if (text ~ /\{$/ && text !~ /(namespace|class|struct|enum|extern) [^(]*\{$/) {
        in_body = 1
        body = classes > 0 ? members[classes] : 0
    }
    begins = !in_body && text ~ /[;}:]$/
    if (text ~ /^ *(template <.*> )?(class|struct) [^;]*\{$/) {
        members[++classes] = here + 4
        comment = ""
        begins = 1
        in_body = 0
    }
    print
}
