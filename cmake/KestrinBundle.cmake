# The agent finds itself through its bundle: Kestrin.app/Contents/{MacOS,Resources,Info.plist}.
set(KESTRIN_BUNDLE_DIR "${CMAKE_BINARY_DIR}/Kestrin.app")
set(KESTRIN_BUNDLE_EXE_DIR "${KESTRIN_BUNDLE_DIR}/Contents/MacOS")
file(MAKE_DIRECTORY "${KESTRIN_BUNDLE_EXE_DIR}" "${KESTRIN_BUNDLE_DIR}/Contents/Resources")
configure_file("${CMAKE_SOURCE_DIR}/resources/Info.plist.in"
               "${KESTRIN_BUNDLE_DIR}/Contents/Info.plist" @ONLY)
# The PAM service of kestrin-auth travels in the bundle; -setup installs it.
configure_file("${CMAKE_SOURCE_DIR}/resources/pam.d/kestrin-auth"
               "${KESTRIN_BUNDLE_DIR}/Contents/Resources/pam.d/kestrin-auth" COPYONLY)
