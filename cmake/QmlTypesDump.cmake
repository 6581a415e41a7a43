# Replaces the registrar's description of the kutils module by a complete one.
# The registrar sees only the types that register themselves; the others are
# registered in C++ when the plugin loads, so qmlplugindump loads the built
# plugin (creating no object) and describes every type. Tooling such as
# qmllint and qmlls then knows the whole module.
#
#   cmake -DDUMP=<qmlplugindump> -DIMPORT_DIR=<qml dir> -DOUTPUT=<kutils.qmltypes> -P QmlTypesDump.cmake
#
# A dump that fails leaves the registrar's file in place with a warning: the
# plugin itself is fine, only tooling knows less.
execute_process(
  COMMAND ${CMAKE_COMMAND} -E env QT_QPA_PLATFORM=offscreen
          ${DUMP} -noinstantiate -nonrelocatable kutils 1.0 ${IMPORT_DIR}
  OUTPUT_VARIABLE _types
  ERROR_VARIABLE _errors
  RESULT_VARIABLE _result
  TIMEOUT 120)
if(NOT _result EQUAL 0 OR NOT _types MATCHES "exports: \\[\"kutils/VideoPlayer 1.0\"\\]")
  message(WARNING "qmlplugindump could not describe the kutils module (${_result}); "
                  "kept the registrar's kutils.qmltypes.\n${_errors}")
  return()
endif()
# The dump gives the revisions in the old form; tooling now counts version 1.0
# as revision 256 (major times 256 plus minor) and warns about every type otherwise.
string(REPLACE "exportMetaObjectRevisions: [0]" "exportMetaObjectRevisions: [256]" _types "${_types}")
file(WRITE ${OUTPUT} "${_types}")
