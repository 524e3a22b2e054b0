# Finds Wild Magic 5 (Debian: libwildmagic-dev) and defines WildMagic5::WildMagic5.
# Only the mathematics and core libraries are used.

find_path(WildMagic5_INCLUDE_DIR Wm5Vector3.h PATH_SUFFIXES libwildmagic)
find_library(WildMagic5_Mathematics_LIBRARY Wm5Mathematics)
find_library(WildMagic5_Core_LIBRARY Wm5Core)

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(WildMagic5
  REQUIRED_VARS WildMagic5_INCLUDE_DIR WildMagic5_Mathematics_LIBRARY WildMagic5_Core_LIBRARY)

if(WildMagic5_FOUND AND NOT TARGET WildMagic5::WildMagic5)
  add_library(WildMagic5::WildMagic5 INTERFACE IMPORTED)
  # SYSTEM: its headers are not warning-clean under -Wextra.
  set_target_properties(WildMagic5::WildMagic5 PROPERTIES
    INTERFACE_SYSTEM_INCLUDE_DIRECTORIES "${WildMagic5_INCLUDE_DIR}"
    INTERFACE_INCLUDE_DIRECTORIES "${WildMagic5_INCLUDE_DIR}"
    INTERFACE_LINK_LIBRARIES "${WildMagic5_Mathematics_LIBRARY};${WildMagic5_Core_LIBRARY}")
endif()
mark_as_advanced(WildMagic5_INCLUDE_DIR WildMagic5_Mathematics_LIBRARY WildMagic5_Core_LIBRARY)
