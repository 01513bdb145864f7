# What Doxygen reads instead of a header: comments in its own notation. The headers'
# own rules are shorter: a comment stands for all declarations up to the next blank
# line, and what has none is told of where its class is.

function indent_of(line) {
    match(line, /^ */)
    return RLENGTH
}

BEGIN {
    classes = 0
    begins = 1  # whether this line can begin a declaration
}

/^ *\/\// && !in_body {
    if (!in_comment)
        comment = ""
    in_comment = 1
    sub(/\/\/ ?/, "/// ")
    if ($0 !~ /\/\/\/     /)
        gsub(/</, "\\<")  # a header's name; code is indented
    comment = comment $0 "\n"
    depth = indent_of($0)
    begins = 1
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
        else if (classes > 0 && here == members[classes])
            print "/// Told of with its class."
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
