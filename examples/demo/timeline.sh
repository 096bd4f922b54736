# shellcheck shell=bash
# SPDX-License-Identifier: Apache-2.0
#
# The story's time line, from $logs/steps.tsv: bars of text for each chapter, or a picture.

# shellcheck disable=SC2154  # shared with story.sh and its other parts
# chapter, begin and duration in milliseconds, steps, result; one line a chapter.
chapter_times() {
    awk -F '\t' -v zero="$story_began" '
        !($4 in first) { first[$4] = $1; order[++count] = $4 }
        { last[$4] = $2; ++steps[$4]; if ($3 == "failed" || result[$4] == "") result[$4] = $3; if ($3 == "verified" && result[$4] == "skipped") result[$4] = $3 }
        END { for (i = 1; i <= count; ++i) { c = order[i]
            printf "%s\t%.1f\t%.1f\t%d\t%s\n", c, (first[c] - zero) / 1000, (last[c] - first[c]) / 1000, steps[c], result[c] } }
    ' "$logs/steps.tsv"
}

draw_text() {
    chapter_times | awk -F '\t' -v width=48 '
        { name[NR] = $1; begin[NR] = $2; took[NR] = $3; if ($2 + $3 > total) total = $2 + $3 }
        END { for (i = 1; i <= NR; ++i) {
            from = int(begin[i] * width / total); length_ = int((begin[i] + took[i]) * width / total) - from
            if (length_ < 1) length_ = 1
            if (from + length_ > width) from = width - length_
            bar = ""; for (j = 0; j < width; ++j) bar = bar (j >= from && j < from + length_ ? "#" : ".")
            printf "  %-44s %s %7.0f ms\n", substr(name[i], 1, 44), bar, took[i] } }'
}

# An SVG picture: a row a chapter, a mark a step.
draw_svg() {
    { chapter_times && printf '\f\n' && cat "$logs/steps.tsv"; } | awk -F '\t' -v zero="$story_began" '
        function text(s) { gsub(/&/, "\\&amp;", s); gsub(/</, "\\&lt;", s); gsub(/>/, "\\&gt;", s); return s }
        function x(ms) { return 460 + ms * 600 / total }
        /^\f/ { steps = 1; next }
        !steps { ++rows; row[$1] = rows; name[rows] = $1; begin[rows] = $2; took[rows] = $3; result[rows] = $5; if ($2 + $3 > total) total = $2 + $3; next }
        { ++marks; when[marks] = ($2 - zero) / 1000; at[marks] = row[$4]; what[marks] = $5 }
        END {
            height = 60 + rows * 26
            printf "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"1150\" height=\"%d\" font-family=\"sans-serif\" font-size=\"13\">\n", height
            printf "<rect width=\"100%%\" height=\"100%%\" fill=\"white\"/>\n<text x=\"12\" y=\"22\" font-size=\"15\">One connection, %.1f s</text>\n", total / 1000
            for (i = 1; i <= rows; ++i) {
                y = 36 + i * 26 - 14
                colour = result[i] == "verified" ? "#4a9d5b" : result[i] == "skipped" ? "#b0b0b0" : "#c0392b"
                w = took[i] * 600 / total; if (w < 1) w = 1
                printf "<text x=\"12\" y=\"%d\">%s</text>\n", y + 13, text(name[i])
                printf "<rect x=\"%.1f\" y=\"%d\" width=\"%.1f\" height=\"16\" fill=\"%s\" rx=\"2\"/>\n", x(begin[i]), y, w, colour
                printf "<text x=\"1070\" y=\"%d\" fill=\"#555\">%.0f ms</text>\n", y + 13, took[i]
            }
            for (i = 1; i <= marks; ++i)
                printf "<line x1=\"%.1f\" x2=\"%.1f\" y1=\"%d\" y2=\"%d\" stroke=\"white\" stroke-width=\"0.7\"><title>%s</title></line>\n", \
                    x(when[i]), x(when[i]), 22 + at[i] * 26, 38 + at[i] * 26, text(what[i])
            print "</svg>"
        }'
}
