# find_package(T4miClient) gives T4miClient::t4mi_client (the shared
# library) and T4miClient::t4mi_client_static, each with the include
# directory of the t4mi/ headers.
include("${CMAKE_CURRENT_LIST_DIR}/T4miClientTargets.cmake")
