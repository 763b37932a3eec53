# Run by "cmake --install" after the files are in place. It
#  - writes the systemd unit for the daemon's installed location (known only
#    now: --prefix may differ from the configured prefix);
#  - makes the daemon's fixed places, which do not move with the prefix;
#  - puts the example configuration in place when there is no configuration.
# An existing directory or configuration is never changed. DESTDIR is
# honoured throughout (file(INSTALL) adds it itself; the checks add it).
#
# Set by the install code before this script: HALYARD_DIST (the source dist
# folder), HALYARD_STAGE (a scratch folder of the build tree),
# HALYARD_SBINDIR, HALYARD_BINDIR and HALYARD_DOCDIR (absolute, or relative
# to the prefix).

function(halyard_full out dir)
  if(IS_ABSOLUTE "${dir}")
    set(${out} "${dir}" PARENT_SCOPE)
  else()
    set(${out} "${CMAKE_INSTALL_PREFIX}/${dir}" PARENT_SCOPE)
  endif()
endfunction()

halyard_full(HALYARD_SBIN "${HALYARD_SBINDIR}")
halyard_full(HALYARD_BIN "${HALYARD_BINDIR}")
halyard_full(halyard_doc "${HALYARD_DOCDIR}")
set(halyard_root "$ENV{DESTDIR}")

# The unit, naming the daemon where it now is (without DESTDIR: that is
# where it will run).
configure_file("${HALYARD_DIST}/halyard.service.in" "${HALYARD_STAGE}/halyard.service" @ONLY)
configure_file("${HALYARD_DIST}/halyard-nda.service.in" "${HALYARD_STAGE}/halyard-nda.service" @ONLY)
configure_file("${HALYARD_DIST}/halyard-stats.service.in" "${HALYARD_STAGE}/halyard-stats.service" @ONLY)
file(INSTALL DESTINATION "${halyard_doc}" TYPE FILE FILES "${HALYARD_STAGE}/halyard.service"
     "${HALYARD_STAGE}/halyard-nda.service" "${HALYARD_STAGE}/halyard-stats.service")

# The fixed places and their modes: the configuration, the variable
# directory (log, client FIFOs, lock file) with the database root, which the
# daemon needs to exist (it makes everything below it, group-writable), and
# the home with its lib folder (message file). The home's owner and group
# are the daemon's administrative user: its log file and database objects
# are given to them. The install makes it root's; chown it to change that.
set(halyard_places
  /etc/opt 755
  /etc/opt/KORRbase 755
  /var/opt 755
  /var/opt/KORRbase 755
  /var/opt/KORRbase/rtdb 775
  /opt 755
  /opt/KORRlibs 755
  /opt/KORRlibs/lib 755)
list(LENGTH halyard_places halyard_n)
math(EXPR halyard_last "${halyard_n} - 1")
foreach(i RANGE 0 ${halyard_last} 2)
  math(EXPR j "${i} + 1")
  list(GET halyard_places ${i} place)
  list(GET halyard_places ${j} mode)
  set(path "${halyard_root}${place}")
  if(IS_DIRECTORY "${path}")
    continue()
  endif()
  if(EXISTS "${path}" OR IS_SYMLINK "${path}")
    message(FATAL_ERROR "${path} exists and is not a directory: Halyard needs it as one")
  endif()
  set(perms OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
  if(mode STREQUAL "775")
    list(APPEND perms GROUP_WRITE)
  endif()
  message(STATUS "Creating: ${path} (mode ${mode})")
  file(MAKE_DIRECTORY "${path}")
  file(CHMOD "${path}" PERMISSIONS ${perms})
endforeach()

# The configuration: the example, unless there is one already (a link counts,
# even a dangling one: it is the site's).
set(halyard_config "${halyard_root}/etc/opt/KORRbase/config.vz")
if(EXISTS "${halyard_config}" OR IS_SYMLINK "${halyard_config}")
  message(STATUS "Keeping: ${halyard_config} (an existing configuration is never replaced; "
                 "the example is ${halyard_doc}/config.vz.example)")
else()
  file(INSTALL DESTINATION /etc/opt/KORRbase TYPE FILE
       PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ
       FILES "${HALYARD_DIST}/config.vz.example" RENAME config.vz)
endif()
