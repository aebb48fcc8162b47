# The app's platform on macOS. On other systems the tests build it against frameworks of their own.
set(VERDO_MACOS_PLATFORM
  AgentWindow.mm
  BootTime.cpp
  BundleFacts.cpp
  CFHandle.cpp
  DesktopProxy.cpp
  IOPMPowerAssertion.cpp
  KeychainStore.cpp
  LocalPeer.cpp
  LogDirectory.cpp
  LoginItemManager.mm
  NativeSettings.cpp
  NetworkPathMonitor.cpp
  SystemIcon.mm
  SystemLog.cpp
  SystemParts.cpp
  TrayWatch.cpp
  WorkspaceWakeMonitor.mm
)
list(TRANSFORM VERDO_MACOS_PLATFORM PREPEND ${CMAKE_CURRENT_LIST_DIR}/)
