# Completes what qdbusxml2cpp generates for an adaptor: cmake -DBASE=<path without suffix> -DXML=<file> -P ...

# The generator leaves the variable that receives a method's reply uninitialised; should the server lack the
# method, the caller would be answered with whatever the stack holds. Give it the value of a failure.
file(READ "${BASE}.cpp" source)
string(REGEX REPLACE "\n    int ([A-Za-z_]+);\n" "\n    int \\1 = -1;\n" source "${source}")
string(REGEX REPLACE "\n    bool ([A-Za-z_]+);\n" "\n    bool \\1 = false;\n" source "${source}")
file(WRITE "${BASE}.cpp" "${source}")

# It also drops the comments of the XML, which are the documentation that introspection is to return. Put the
# interface element as it stands in the file in place of the generator's copy.
file(READ "${XML}" xml)
string(FIND "${xml}" "  <interface " begin)
string(FIND "${xml}" "</interface>" end)
if(begin EQUAL -1 OR end EQUAL -1)
  message(FATAL_ERROR "${XML}: no interface element")
endif()
math(EXPR length "${end} - ${begin}")
string(SUBSTRING "${xml}" ${begin} ${length} interface)
string(APPEND interface "</interface>\n")
string(REPLACE "\\" "\\\\" interface "${interface}")
string(REPLACE "\"" "\\\"" interface "${interface}")
string(REPLACE "\n" "\\n\"\n\"" interface "${interface}")

file(READ "${BASE}.h" header)
set(opening "Q_CLASSINFO(\"D-Bus Introspection\", \"\"\n")
set(closing "\"  </interface>\\n\"\n")
string(FIND "${header}" "${opening}" begin)
string(FIND "${header}" "${closing}" end)
if(begin EQUAL -1 OR end EQUAL -1)
  message(FATAL_ERROR "${BASE}.h: no introspection data, has the generator changed?")
endif()
string(LENGTH "${opening}" length)
math(EXPR begin "${begin} + ${length}")
string(LENGTH "${closing}" length)
math(EXPR end "${end} + ${length}")
string(SUBSTRING "${header}" 0 ${begin} before)
string(SUBSTRING "${header}" ${end} -1 after)
file(WRITE "${BASE}.h" "${before}\"${interface}\"\n${after}")
