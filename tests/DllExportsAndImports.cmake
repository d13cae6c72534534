# The Windows DLL exports the facade and imports the system libraries that its backend calls
# itself, so that a host linking only KvPCIeInjectSdk resolves every import. OBJDUMP and DLL.
execute_process(COMMAND ${OBJDUMP} -p ${DLL} RESULT_VARIABLE code OUTPUT_VARIABLE table
                ERROR_VARIABLE err)
if(NOT code EQUAL 0)
    message(FATAL_ERROR "${OBJDUMP} -p ${DLL} failed (${code}): ${err}")
endif()
foreach(expected "DLL Name: SETUPAPI.dll" "SetupDiGetClassDevsW" "SetupDiDestroyDeviceInfoList"
                 "DLL Name: CFGMGR32.dll" "CM_Get_Device_IDW" "CM_Disable_DevNode"
                 "CM_Enable_DevNode" "DLL Name: Qt5Widgets.dll")
    string(FIND "${table}" "${expected}" at)
    if(at EQUAL -1)
        message(FATAL_ERROR "${DLL} lacks \"${expected}\"")
    endif()
endforeach()
# The export table names the class's members: its constructor and two operations at least.
foreach(member "_ZN15PCIeDataManagerC1E" "_ZN15PCIeDataManager8OpenCardE"
               "_ZN15PCIeDataManager12StartCaptureE")
    if(NOT table MATCHES "\\] ${member}")
        message(FATAL_ERROR "${DLL} does not export ${member}...")
    endif()
endforeach()
