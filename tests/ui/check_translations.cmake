# Fails when a translation lags behind the sources: lupdate run over a copy of
# each .ts must leave it as committed (no new, changed or vanished text), and
# no message may be unfinished or empty. After changing texts:
#   cmake --build BUILD_DIR --target translations-update, then translate.
# usage: cmake -DLUPDATE_COMMAND=... -DTS_FILES=... -DWORK_DIR=... -P check_translations.cmake
foreach(ts ${TS_FILES})
    get_filename_component(name "${ts}" NAME)
    set(copy "${WORK_DIR}/${name}")
    configure_file("${ts}" "${copy}" COPYONLY)
    execute_process(COMMAND ${LUPDATE_COMMAND} -ts "${copy}" RESULT_VARIABLE result)
    if(NOT result EQUAL 0)
        message(FATAL_ERROR "lupdate failed on ${name}")
    endif()
    file(READ "${ts}" committed)
    file(READ "${copy}" updated)
    if(NOT committed STREQUAL updated)
        execute_process(COMMAND diff -u "${ts}" "${copy}")
        message(SEND_ERROR "${name} does not match the texts in the sources")
    endif()
    string(REGEX MATCHALL "type=\"[a-z]+\"|<translation></translation>|<numerusform></numerusform>"
           open "${committed}")
    if(open)
        message(SEND_ERROR "${name} has messages without a finished translation: ${open}")
    endif()
endforeach()
