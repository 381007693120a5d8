# Files beside the programs (man pages, bash completion, logrotate rule, package
# documents) and the .deb and .rpm packages CPack makes from the install tree.
#
# A plain `cmake --install` keeps every file under the installation prefix, so an
# install from source is removed with its directory and a test install never writes
# to the host. With PP_SYSTEM_FILES=ON (install.sh and the packages) the man pages,
# completion and logrotate rule go where the system looks for them.
option(PP_SYSTEM_FILES "Install man pages, bash completion and the logrotate rule at the system's own paths" OFF)
if(PP_SYSTEM_FILES)
  set(PP_MAN_DIR /usr/share/man/man8)
  set(PP_COMPLETION_DIR /usr/share/bash-completion/completions)
  set(PP_LOGROTATE_DIR /etc/logrotate.d)
  set(PP_DOC_DIR /usr/share/doc/pathplanner)
else()
  set(PP_MAN_DIR share/man/man8)
  set(PP_COMPLETION_DIR share/bash-completion/completions)
  set(PP_LOGROTATE_DIR etc/logrotate.d)
  set(PP_DOC_DIR share/doc/pathplanner)
endif()

set(PP_MAINTAINER "PathPlanner maintainers <pathplanner@zor.example>")
set(PP_AGENT_DIR ${CMAKE_INSTALL_PREFIX})
set(PP_LOG_DIR ${CMAKE_INSTALL_PREFIX}/log)
string(TIMESTAMP PP_CHANGELOG_DATE "%a, %d %b %Y %H:%M:%S +0000" UTC)

set(_pkg ${PROJECT_SOURCE_DIR}/packaging)
set(_out ${PROJECT_BINARY_DIR}/packaging)
configure_file(${_pkg}/logrotate.in ${_out}/pathplanner @ONLY)
configure_file(${_pkg}/copyright.in ${_out}/copyright @ONLY)
configure_file(${_pkg}/changelog.in ${_out}/changelog @ONLY)
configure_file(${_pkg}/deb/postrm ${_out}/deb/postrm @ONLY
               FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

# Man pages and the changelog are shipped compressed, at the highest level and
# without a time stamp, as Debian's policy asks; man reads them either way.
find_program(PP_GZIP gzip REQUIRED)
# The pages name the version CMake sets, so they are configured before compressing.
set(_compressed)
foreach(page PathPlanner.8 PathPlannerTopology.8)
  configure_file(${PROJECT_SOURCE_DIR}/man/${page} ${_out}/${page} @ONLY)
endforeach()
foreach(source ${_out}/PathPlanner.8 ${_out}/PathPlannerTopology.8 ${_out}/changelog)
  get_filename_component(name ${source} NAME)
  get_filename_component(input ${source} ABSOLUTE BASE_DIR ${PROJECT_SOURCE_DIR})
  add_custom_command(OUTPUT ${_out}/${name}.gz
                     COMMAND sh -c "${PP_GZIP} -9n < \"$1\" > \"$2\"" gzip ${input} ${_out}/${name}.gz
                     DEPENDS ${input} VERBATIM)
  list(APPEND _compressed ${_out}/${name}.gz)
endforeach()
add_custom_target(pp_documents ALL DEPENDS ${_compressed})

install(FILES ${_out}/PathPlanner.8.gz ${_out}/PathPlannerTopology.8.gz DESTINATION ${PP_MAN_DIR})
install(FILES ${_pkg}/bash-completion/PathPlanner ${_pkg}/bash-completion/PathPlannerTopology
        DESTINATION ${PP_COMPLETION_DIR})
install(FILES ${_out}/pathplanner DESTINATION ${PP_LOGROTATE_DIR})
install(FILES ${_out}/copyright ${_out}/changelog.gz DESTINATION ${PP_DOC_DIR})
if(PP_SYSTEM_FILES)
  install(FILES ${_pkg}/lintian-overrides DESTINATION /usr/share/lintian/overrides RENAME pathplanner)
endif()

# --- packages -------------------------------------------------------------------
set(CPACK_GENERATOR "DEB;RPM")
set(CPACK_PACKAGE_NAME pathplanner)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_VENDOR "PathPlanner maintainers")
set(CPACK_PACKAGE_CONTACT ${PP_MAINTAINER})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "multipath path planning for the storage-management agent")
# Short lines: the .deb's control file keeps them as they are, and wants them under 80.
string(JOIN "\n" CPACK_PACKAGE_DESCRIPTION
       "PathPlanner is started by the storage-management agent for one multipath"
       "action: a rescan of the SCSI and Fibre Channel buses for new LUNs, a change"
       "of path states, or a change of the load-balancing policy. It drives the"
       "vendor multipath driver or the device-mapper multipath tools and records"
       "what it did in its activity log."
       "PathPlannerTopology prints the device-mapper multipath topology as JSON or"
       "as a table and changes path states by adapter port.")
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_STRIP_FILES ON)
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)

# What the tool runs besides the multipath tools themselves: the rescan script needs
# bash, cat/cp/date/rm/seq/sleep/head (coreutils), diff, grep and sed; the
# device-mapper driver's package query pipes rpm into awk. rpm and the multipath
# tools are the host's business: without them the tool reports that it found no driver.
set(CPACK_DEBIAN_PACKAGE_DEPENDS
    "bash (>= 4.0), coreutils (>= 8.0), diffutils (>= 3.0), grep (>= 3.0), gawk | mawk, sed (>= 4.0)")
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "multipath-tools, rpm")
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
# The logrotate rule is the administrator's to adjust: an upgrade asks before replacing
# an edited copy, and only a purge removes it.
if(IS_ABSOLUTE ${PP_LOGROTATE_DIR})
  set(_logrotate_rule ${PP_LOGROTATE_DIR}/pathplanner)
else()
  set(_logrotate_rule ${CMAKE_INSTALL_PREFIX}/${PP_LOGROTATE_DIR}/pathplanner)
endif()
file(WRITE ${_out}/deb/conffiles "${_logrotate_rule}\n")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${_out}/deb/postrm ${_out}/deb/conffiles)

set(CPACK_RPM_PACKAGE_REQUIRES "bash, coreutils, diffutils, grep, /usr/bin/awk, sed, rpm")
set(CPACK_RPM_PACKAGE_LICENSE "Proprietary")
# The agent finds itself only at /opt/ZOR/QLX/agent: the package cannot move.
set(CPACK_PACKAGE_RELOCATABLE OFF)
set(CPACK_RPM_PACKAGE_GROUP "Applications/System")
set(CPACK_RPM_PACKAGE_ARCHITECTURE ${CMAKE_SYSTEM_PROCESSOR})
set(CPACK_RPM_FILE_NAME "${CPACK_PACKAGE_NAME}-${PROJECT_VERSION}.${CMAKE_SYSTEM_PROCESSOR}.rpm")
# rpmbuild's /usr/lib/.build-id links would make two builds of the agent's tools clash.
set(CPACK_RPM_SPEC_MORE_DEFINE "%define _build_id_links none\n%define packager ${PP_MAINTAINER}")
set(CPACK_RPM_USER_FILELIST "%config(noreplace) ${_logrotate_rule}")
# Directories the system owns stay out of the package's file list.
set(CPACK_RPM_EXCLUDE_FROM_AUTO_FILELIST_ADDITION
    /opt /etc/logrotate.d /usr/share/man /usr/share/man/man8 /usr/share/bash-completion
    /usr/share/bash-completion/completions /usr/share/lintian /usr/share/lintian/overrides)

include(CPack)
