# Writes the document as a page that stands by itself:
#   cmake -DCMARK=PROGRAM -DSOURCE=FILE.md -DPAGE=FILE.html -P Document.cmake
execute_process(COMMAND ${CMARK} -e table ${SOURCE} OUTPUT_VARIABLE body COMMAND_ERROR_IS_FATAL ANY)
string(REGEX MATCH "<h1>([^<]*)</h1>" heading "${body}")
file(WRITE ${PAGE} "<!DOCTYPE html>
<html lang=\"en\">
<head>
<meta charset=\"utf-8\">
<title>${CMAKE_MATCH_1}</title>
<style>
body { max-width: 60em; margin: 2em auto; font-family: sans-serif }
pre { background: #eee; padding: 1em; overflow: auto }
td, th { text-align: left; vertical-align: top; padding: .2em 1em .2em 0 }
</style>
</head>
<body>
${body}</body>
</html>
")
