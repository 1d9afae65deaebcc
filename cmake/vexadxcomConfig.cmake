include("${CMAKE_CURRENT_LIST_DIR}/vexadxcomTargets.cmake")
