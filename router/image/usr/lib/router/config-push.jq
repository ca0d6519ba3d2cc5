# The values of the configuration that the message's "value" asks for, by path; an error for what is no path.

def parts: gsub("^/|/$"; "") | gsub("/"; ".") | if . == "" then [] else split(".") end;

. as $configuration
| $message.value
| if type == "string" then [.] elif type == "array" and length > 0 then . else error("no path") end
| map(if type != "string" then error("no path") else . end
      | . as $path | {($path): ($configuration | getpath($path | parts))})
| add
