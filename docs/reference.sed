# SPDX-License-Identifier: Apache-2.0
#
# Turns a Markdown page into one for the reference, which has no anchors of the headings' names and
# no files of the source tree.
s/\[([^]]*)\]\(#[^)]*\)/\1/g
s/\.md#[^)]*\)/.md)/g
s/(^|[^!])\[([^]]*)\]\(((\.\.\/)?(include|examples|packaging|scripts|src|tools|sim|tests|bench|fuzz)\/?[^)]*|(\.\.\/)?LICENSE)\)/\1\2/g
