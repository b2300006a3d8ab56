# What `cmake --install` ships: the layers' objects gathered into one shared
# and one static libzbtarrowdata, the public headers under
# include/zbtarrowdata (included as "controller/ZBTarrowDataController.h"
# and so on), the CMake package ZBTarrowData and the pkg-config file
# zbtarrowdata.pc. The message catalogues, tarrow and pinboard-sim install
# from their own folders.

include(CMakePackageConfigHelpers)

set(ZB_SHIPPED_LAYERS zb_foundation zb_archive zb_operations zb_predicate zb_objectstore zb_pinboardkit zb_webkit
    zbtarrowdata)
set(ZB_SHIPPED_DEPENDENCIES Threads::Threads ICU::uc ICU::i18n OpenSSL::Crypto CURL::libcurl PkgConfig::PLIST
    SQLite::SQLite3 simdjson::simdjson LibXml2::LibXml2)
set(ZB_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/ZBTarrowData)

set(zb_objects)
foreach(layer IN LISTS ZB_SHIPPED_LAYERS)
  list(APPEND zb_objects $<TARGET_OBJECTS:${layer}>)
endforeach()

add_library(zbtarrowdata_shared SHARED ${zb_objects})
target_link_libraries(zbtarrowdata_shared PRIVATE ${ZB_SHIPPED_DEPENDENCIES})
set_target_properties(zbtarrowdata_shared PROPERTIES
  OUTPUT_NAME zbtarrowdata EXPORT_NAME zbtarrowdata
  VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR})

add_library(zbtarrowdata_static STATIC ${zb_objects})
target_link_libraries(zbtarrowdata_static PUBLIC ${ZB_SHIPPED_DEPENDENCIES})
set_target_properties(zbtarrowdata_static PROPERTIES OUTPUT_NAME zbtarrowdata EXPORT_NAME zbtarrowdata_static)

foreach(target zbtarrowdata_shared zbtarrowdata_static)
  # Their own folder: the static one has the name of the in-tree layer target.
  set_target_properties(${target} PROPERTIES ARCHIVE_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/shipped
                                             LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/shipped)
  target_include_directories(${target} INTERFACE $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/zbtarrowdata>)
  target_compile_features(${target} INTERFACE cxx_std_20)
endforeach()

install(TARGETS zbtarrowdata_shared EXPORT ZBTarrowDataShared)
install(TARGETS zbtarrowdata_static EXPORT ZBTarrowDataStatic)
install(EXPORT ZBTarrowDataShared NAMESPACE ZBTarrowData:: FILE ZBTarrowDataSharedTargets.cmake
        DESTINATION ${ZB_INSTALL_CMAKEDIR})
install(EXPORT ZBTarrowDataStatic NAMESPACE ZBTarrowData:: FILE ZBTarrowDataStaticTargets.cmake
        DESTINATION ${ZB_INSTALL_CMAKEDIR})
install(DIRECTORY ${CMAKE_SOURCE_DIR}/src/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/zbtarrowdata
        FILES_MATCHING PATTERN "*.h")

configure_package_config_file(${CMAKE_SOURCE_DIR}/cmake/ZBTarrowDataConfig.cmake.in
  ${CMAKE_BINARY_DIR}/ZBTarrowDataConfig.cmake INSTALL_DESTINATION ${ZB_INSTALL_CMAKEDIR})
write_basic_package_version_file(${CMAKE_BINARY_DIR}/ZBTarrowDataConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_BINARY_DIR}/ZBTarrowDataConfig.cmake ${CMAKE_BINARY_DIR}/ZBTarrowDataConfigVersion.cmake
        DESTINATION ${ZB_INSTALL_CMAKEDIR})

# Relocatable: the prefix is found from the .pc file's own place, so an
# install with `cmake --install --prefix` elsewhere works too.
file(RELATIVE_PATH ZB_PC_TO_PREFIX ${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
configure_file(${CMAKE_SOURCE_DIR}/cmake/zbtarrowdata.pc.in ${CMAKE_BINARY_DIR}/zbtarrowdata.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/zbtarrowdata.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
