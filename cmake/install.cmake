# cmake --install: programs, libraries, headers, and what finds them: find_package(zan) for CMake,
# pkg-config zan for everybody else.
include(CMakePackageConfigHelpers)

set(zan_headers ${CMAKE_INSTALL_INCLUDEDIR}/zan)
file(GLOB headers ${ZAN_DIR}/tables/*.h ${ZAN_DIR}/platform_api/*.h ${ZAN_DIR}/core/*.h ${ZAN_GEN}/*.h
    platforms/npu_sim/npu_sim_control.h client/zan_client.h
    client/zan_wire.h)
install(FILES ${headers} DESTINATION ${zan_headers} COMPONENT headers)

set(zan_targets zan_tables zan_table_server zan_host zan_npu_sim zan_client zan_agent_library)
foreach(target ${zan_targets} zan_agent zanctl zan_schema)
    if(TARGET ${target})
        list(APPEND installed ${target})
    endif()
endforeach()
install(TARGETS ${installed} EXPORT zanTargets
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    INCLUDES DESTINATION ${zan_headers})
install(EXPORT zanTargets NAMESPACE zan:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/zan)
configure_package_config_file(cmake/zanConfig.cmake.in ${CMAKE_BINARY_DIR}/zanConfig.cmake
    INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/zan)
write_basic_package_version_file(${CMAKE_BINARY_DIR}/zanConfigVersion.cmake
    COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/zanConfig.cmake ${CMAKE_BINARY_DIR}/zanConfigVersion.cmake
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/zan)
# Wherever `cmake --install --prefix` has put it.
file(RELATIVE_PATH zan_prefix_of_pc /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
configure_file(cmake/zan.pc.in ${CMAKE_BINARY_DIR}/zan.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/zan.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
