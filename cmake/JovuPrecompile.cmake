# SPDX-License-Identifier: Apache-2.0
#
# Most of the time that a build takes goes into reading a few large headers of other projects, over and
# over. With JOVU_PRECOMPILE they are read once per target, and a unity build's targets that are one
# or two units read them there. Whether each file includes what it uses then shows in builds without
# either only; the preset "fuzz" is one, and the library never has any.
if(JOVU_PRECOMPILE)
  set(json_users jovu_cli_parts jovu_sim_firmware)
  if(NOT CMAKE_UNITY_BUILD)
    list(APPEND json_users jovu_sim_bus jovu_sim_tool)
    set(json_testers integration_tests storm_tests cli_tests cli_parts_tests sim_tests)
    set(testers ${json_testers} unit_tests fake_usb_tests)
    if(TARGET jovu_cli_parts)
      target_precompile_headers(jovu_cli_parts PRIVATE <CLI/CLI.hpp>)
    endif()
  endif()
  if(TARGET jovu_python)
    target_precompile_headers(jovu_python PRIVATE <pybind11/pybind11.h>)
  endif()
  foreach(target ${json_users} ${json_testers})
    if(TARGET ${target})
      target_precompile_headers(${target} PRIVATE <nlohmann/json.hpp>)
    endif()
  endforeach()
  foreach(target ${testers})
    if(TARGET ${target})
      target_precompile_headers(${target} PRIVATE <gmock/gmock.h>)
    endif()
  endforeach()
endif()
