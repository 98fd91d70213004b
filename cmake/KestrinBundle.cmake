# The agent finds itself through its bundle: Kestrin.app/Contents/{MacOS,Resources,Info.plist}.
set(KESTRIN_BUNDLE_DIR "${CMAKE_BINARY_DIR}/Kestrin.app")
set(KESTRIN_BUNDLE_EXE_DIR "${KESTRIN_BUNDLE_DIR}/Contents/MacOS")
file(MAKE_DIRECTORY "${KESTRIN_BUNDLE_EXE_DIR}" "${KESTRIN_BUNDLE_DIR}/Contents/Resources")
configure_file("${CMAKE_SOURCE_DIR}/resources/Info.plist.in"
               "${KESTRIN_BUNDLE_DIR}/Contents/Info.plist" @ONLY)
