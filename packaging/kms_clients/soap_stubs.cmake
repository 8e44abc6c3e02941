# kms_generate_soap_stubs(<target> NAME <name> SERVICE <service> HEADER <header> [SOAP12])
#
# Runs soapcpp2 at build time on a service header written for it and adds the client stubs to <target>:
# <build>/packaging/kms_clients/generated/<name>/<name>C.cpp (serialisers) and <name><service>Proxy.cpp (the
# proxy class <name>::<service>Proxy, SOAP 1.1, or SOAP 1.2 with SOAP12, sharing a struct soap). Each service gets its own C++ namespace
# and file prefix (-q, -p), so several services live in one library. The generated code is not ours to fix:
# it builds without warnings, and its headers are included as system headers.
find_program(SOAPCPP2_EXECUTABLE soapcpp2 REQUIRED)
find_path(GSOAP_IMPORT_DIR stlvector.h PATHS /usr/share/gsoap/import /usr/local/share/gsoap/import REQUIRED)

# The envelope's serialisers in the global namespace, which gSOAP's runtime calls (soap_fault_string, headers,
# DOM elements): generated once per target from services/soap_env.h, with the file prefix "soapEnv".
function(kms_generate_soap_env target header)
  set(out ${CMAKE_CURRENT_BINARY_DIR}/generated/soapEnv)
  add_custom_command(
    OUTPUT ${out}/soapEnvC.cpp ${out}/soapEnvH.h ${out}/soapEnvStub.h
    COMMAND ${CMAKE_COMMAND} -E make_directory ${out}
    COMMAND ${SOAPCPP2_EXECUTABLE} -C -1 -x -w -L -psoapEnv -d${out} -I${GSOAP_IMPORT_DIR} ${header}
    DEPENDS ${header}
    COMMENT "soapcpp2: SOAP envelope serialisers"
    VERBATIM)
  target_sources(${target} PRIVATE ${out}/soapEnvC.cpp)
  set_source_files_properties(${out}/soapEnvC.cpp PROPERTIES COMPILE_OPTIONS "-w")
endfunction()

function(kms_generate_soap_stubs target)
  cmake_parse_arguments(S "SOAP12" "NAME;SERVICE;HEADER" "" ${ARGN})
  set(version -1)
  if(S_SOAP12)
    set(version -2)
  endif()
  if(NOT S_NAME OR NOT S_SERVICE OR NOT S_HEADER)
    message(FATAL_ERROR "kms_generate_soap_stubs: NAME, SERVICE and HEADER are required")
  endif()
  set(root ${CMAKE_CURRENT_BINARY_DIR}/generated)
  set(out ${root}/${S_NAME})
  set(sources ${out}/${S_NAME}C.cpp ${out}/${S_NAME}${S_SERVICE}Proxy.cpp)
  set(headers ${out}/${S_NAME}H.h ${out}/${S_NAME}Stub.h ${out}/${S_NAME}${S_SERVICE}Proxy.h)
  add_custom_command(
    OUTPUT ${sources} ${headers}
    BYPRODUCTS ${out}/${S_SERVICE}.nsmap
    COMMAND ${CMAKE_COMMAND} -E make_directory ${out}
    COMMAND ${SOAPCPP2_EXECUTABLE} -C -j ${version} -x -w -L -q${S_NAME} -p${S_NAME} -d${out} -I${GSOAP_IMPORT_DIR}
            ${S_HEADER}
    DEPENDS ${S_HEADER}
    COMMENT "soapcpp2: client stubs of ${S_NAME}"
    VERBATIM)
  target_sources(${target} PRIVATE ${sources} ${headers})
  set_source_files_properties(${sources} PROPERTIES COMPILE_OPTIONS "-w")
  target_include_directories(${target} SYSTEM PUBLIC $<BUILD_INTERFACE:${root}>)
endfunction()
