# What Doxygen reads instead of a header: comments in its own notation. The headers'
# own rules are shorter: a comment stands for all declarations up to the next blank
# line. What is deleted is left out.

function indent_of(line) {
    match(line, /^ */)
    return RLENGTH
}

# A header's name is no tag, except in code.
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

# The licence, which goes before what the header says of itself.
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
    # Behind a member: about that member.
    if (!in_body && !in_comment && classes > 0 && here == members[classes] && /;  +\/\/ /) {
        sub(/\/\/ /, "///< ")
    }
    in_comment = 0

    # A body goes on until its brace at the declaration's own indentation.
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
