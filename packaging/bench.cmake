# The bench keeps the layout of the build folder, in one folder of its own: its programs find each
# other, the shim, the stand-ins and the scenarios beside themselves. Links lead there from bin/
# and from there to what other packages bring.
set(bench_folder ${CMAKE_INSTALL_LIBEXECDIR}/vexa-at-bench)
set(bench_data ${CMAKE_INSTALL_DATAROOTDIR}/vexa-at-bench)
set(bench_rules COMPONENT bench EXCLUDE_FROM_ALL)

set(bench_commands vexa-bench vexa-platform vexa-qmi-client)
install(TARGETS ${bench_commands} vexa-module-keeper
        RUNTIME DESTINATION ${bench_folder} ${bench_rules})
# The app platform calls no platform library.
set(bench_users ${bench_commands})
list(REMOVE_ITEM bench_users vexa-platform)
set_target_properties(${bench_users} PROPERTIES INSTALL_RPATH "$ORIGIN/standins")
install(TARGETS vexa_shim LIBRARY DESTINATION ${bench_folder}/lib ${bench_rules})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/bench/scenarios DESTINATION ${bench_data} ${bench_rules})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/trace/vexa_trace DESTINATION ${bench_data} ${bench_rules}
        PATTERN __pycache__ EXCLUDE)

# vexa_install_link(TARGET FOLDER NAME): a symbolic link, relative, so that it holds in any root.
function(vexa_install_link target folder name)
    set(made ${CMAKE_CURRENT_BINARY_DIR}/links/${name})
    file(MAKE_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}/links)
    file(CREATE_LINK ${target} ${made} SYMBOLIC)
    install(FILES ${made} DESTINATION ${folder} ${bench_rules})
endfunction()

foreach(command IN LISTS bench_commands)
    vexa_install_link(../${bench_folder}/${command} ${CMAKE_INSTALL_BINDIR} ${command})
endforeach()
vexa_install_link(../../${CMAKE_INSTALL_SBINDIR}/vexa_at_client ${bench_folder} vexa_at_client)
vexa_install_link(../../${CMAKE_INSTALL_SBINDIR}/vexa-qmi-host ${bench_folder} vexa-qmi-host)
vexa_install_link(../../${VEXA_STANDIN_FOLDER} ${bench_folder} standins)
vexa_install_link(../../${bench_data}/scenarios ${bench_folder} scenarios)

# The pages, which the programs' help and manual pages name. Not on a module.
install(DIRECTORY ${PROJECT_SOURCE_DIR}/docs
        DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/vexa-at-bench ${bench_rules}
        PATTERN man EXCLUDE)
install(PROGRAMS bin/vexa-trace bin/vexa-replay DESTINATION ${CMAKE_INSTALL_BINDIR} ${bench_rules})
list(TRANSFORM bench_commands APPEND .1 OUTPUT_VARIABLE bench_pages)
vexa_install_documents(bench vexa-at-bench EXCLUDE_FROM_ALL
                       MAN ${bench_pages} vexa-trace.1 vexa-replay.1 vexa-module-keeper.8)
