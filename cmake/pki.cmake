set(HUBTALK_PKI_DIR ${CMAKE_BINARY_DIR}/pki)
set(PKI_FILES ${HUBTALK_PKI_DIR}/ca.crt ${HUBTALK_PKI_DIR}/server.crt ${HUBTALK_PKI_DIR}/server.key
              ${HUBTALK_PKI_DIR}/foreign-server.crt ${HUBTALK_PKI_DIR}/foreign-server.key)
add_custom_command(OUTPUT ${PKI_FILES}
  COMMAND sh ${CMAKE_SOURCE_DIR}/cmake/makeDevPki.sh ${HUBTALK_PKI_DIR}
  DEPENDS ${CMAKE_SOURCE_DIR}/cmake/makeDevPki.sh
  COMMENT "Generating development certificate authority")
add_custom_target(devPki DEPENDS ${PKI_FILES})

if(HUBTALK_PINNED_CA)
  set(PINNED_CA_PEM_FILE ${HUBTALK_PINNED_CA})
  set(PINNED_CA_DEPENDS ${HUBTALK_PINNED_CA})
else()
  set(PINNED_CA_PEM_FILE ${HUBTALK_PKI_DIR}/ca.crt)
  set(PINNED_CA_DEPENDS ${PKI_FILES})
endif()
