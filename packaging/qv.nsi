; The installer: per machine, for administrators. tools/package calls it with
;
;   VERSION             the product's version, three numbers
;   MINIMUM             the oldest Windows that the programs run on, as WinVer.nsh names it
;   MINIMUM_NAME        the same for people
;   STAGE               the folder with what is to be installed
;   OUTPUT              the installer to write
;
; Silent use:  setup.exe /S [/LOGON] [/HOST] [/CLIENT] [/D=folder]
;              uninstall.exe /S [/REMOVEDATA]
;
; Ends with 0, 1 when the user cancelled, 2 when a step failed, 3 on a Windows that is too
; old, 4 when a program that is to be replaced or removed could not be ended.

Target amd64-unicode
ManifestSupportedOS all
ManifestDPIAware true
RequestExecutionLevel admin
SetCompressor /SOLID lzma

!include LogicLib.nsh
!include FileFunc.nsh
!include Sections.nsh
!include WinMessages.nsh
!include WinVer.nsh
!include MUI2.nsh

!define UNINSTALL_KEY "Software\Microsoft\Windows\CurrentVersion\Uninstall\qv"
!define RUN_KEY "Software\Microsoft\Windows\CurrentVersion\Run"
!define RULE "qv host (TCP 7777)"
!define TRAY_EXIT 202 ; the command of the application's menu that ends it

Name "qv"
OutFile "${OUTPUT}"
InstallDir "$PROGRAMFILES64\qv"
InstallDirRegKey HKLM "${UNINSTALL_KEY}" "InstallLocation"
BrandingText "qv ${VERSION}"
!pragma warning disable 9100 ; no copyright line: none is claimed here
VIProductVersion "${VERSION}.0"
VIFileVersion "${VERSION}.0"
VIAddVersionKey ProductName "qv"
VIAddVersionKey ProductVersion "${VERSION}"
VIAddVersionKey FileVersion "${VERSION}"
VIAddVersionKey FileDescription "qv setup"

!define MUI_ICON "${STAGE}\qv.ico"
!define MUI_UNICON "${STAGE}\qv.ico"
!define MUI_ABORTWARNING
!define MUI_COMPONENTSPAGE_SMALLDESC
!insertmacro MUI_PAGE_COMPONENTS
!insertmacro MUI_PAGE_DIRECTORY
!insertmacro MUI_PAGE_INSTFILES
!insertmacro MUI_UNPAGE_CONFIRM
!insertmacro MUI_UNPAGE_INSTFILES
!insertmacro MUI_LANGUAGE "English"

; Calls $SYSDIR\netsh.exe; the firewall of Windows has no other door that is as old as 7. The
; status, or what kept it from starting, is left in $0.
!macro Firewall arguments
  nsExec::ExecToLog '"$SYSDIR\netsh.exe" advfirewall firewall ${arguments}'
  Pop $0
!macroend

; The same for installing and uninstalling, which have functions of their own.
!macro Functions un

; Ends what runs out of $INSTDIR, or gives up with 4. Programs elsewhere are left alone.
Function ${un}EndPrograms
  again:
  StrCpy $1 ""
  StrCpy $2 0
  ${Do}
    ; A program that runs cannot be opened for writing.
    StrCpy $1 ""
    ClearErrors
    ${If} ${FileExists} "$INSTDIR\qv.exe"
      FileOpen $0 "$INSTDIR\qv.exe" a
      ${If} ${Errors}
        StrCpy $1 "qv.exe"
        ${If} $2 = 0
          FindWindow $0 "qvapp"
          ${If} $0 <> 0
            SendMessage $0 ${WM_COMMAND} ${TRAY_EXIT} 0 /TIMEOUT=5000
          ${EndIf}
        ${EndIf}
      ${Else}
        FileClose $0
      ${EndIf}
    ${EndIf}
    ClearErrors
    ${If} ${FileExists} "$INSTDIR\qv_host.exe"
      FileOpen $0 "$INSTDIR\qv_host.exe" a
      ${If} ${Errors}
        StrCpy $1 "qv_host.exe"
        ${If} $2 = 0
          nsExec::Exec '"$INSTDIR\qv_host.exe" -q'
          Pop $0
        ${EndIf}
      ${Else}
        FileClose $0
      ${EndIf}
    ${EndIf}
    ClearErrors
    ${If} ${FileExists} "$INSTDIR\qv_client.exe"
      FileOpen $0 "$INSTDIR\qv_client.exe" a
      ${If} ${Errors}
        StrCpy $1 "qv_client.exe"
      ${Else}
        FileClose $0
      ${EndIf}
    ${EndIf}
    ${If} $1 == ""
      Return
    ${EndIf}
    Sleep 200
    IntOp $2 $2 + 1
  ${LoopUntil} $2 >= 50
  MessageBox MB_RETRYCANCEL|MB_ICONEXCLAMATION \
    "$1 is running. End it, then choose Retry." /SD IDCANCEL IDRETRY again
  SetErrorLevel 4
  Quit
FunctionEnd

; Removes what any choice of components may have put in place.
Function ${un}RemovePrograms
  SetShellVarContext all
  ${If} ${FileExists} "$INSTDIR\qv_host.exe"
    !insertmacro Firewall 'delete rule name="${RULE}" program="$INSTDIR\qv_host.exe"'
  ${EndIf}
  ; Only where it is this installation's.
  ReadRegStr $0 HKLM "${RUN_KEY}" "qv"
  ${If} $0 == '"$INSTDIR\qv.exe"'
    DeleteRegValue HKLM "${RUN_KEY}" "qv"
  ${EndIf}
  Delete "$SMPROGRAMS\qv.lnk"
  Delete "$INSTDIR\qv.exe"
  Delete "$INSTDIR\qv_host.exe"
  Delete "$INSTDIR\qv_client.exe"
  Delete "$INSTDIR\README.txt"
  Delete "$INSTDIR\licenses\*.txt"
  RMDir "$INSTDIR\licenses"
  Delete "$INSTDIR\uninstall.exe"
FunctionEnd

!macroend
!insertmacro Functions ""
!insertmacro Functions "un."

Section "qv" section_qv
  SectionIn RO
  SetShellVarContext all
  ; One that was put elsewhere goes first.
  ReadRegStr $0 HKLM "${UNINSTALL_KEY}" "InstallLocation"
  ${If} $0 != ""
  ${AndIf} $0 != $INSTDIR
  ${AndIf} ${FileExists} "$0\uninstall.exe"
    ClearErrors
    ExecWait '"$0\uninstall.exe" /S _?=$0' $1
    ${If} ${Errors}
    ${OrIf} $1 <> 0
      SetErrorLevel 4
      Abort "The qv in $0 could not be removed."
    ${EndIf}
    Delete "$0\uninstall.exe"
    RMDir "$0"
  ${EndIf}
  Call EndPrograms
  Call RemovePrograms

  ClearErrors
  SetOutPath "$INSTDIR\licenses"
  File "${STAGE}\licenses\*.txt"
  SetOutPath "$INSTDIR"
  File "${STAGE}\README.txt"
  File "${STAGE}\qv.exe"
  CreateShortcut "$SMPROGRAMS\qv.lnk" "$INSTDIR\qv.exe" "" "" "" SW_SHOWNORMAL "" \
    "Remote desktop"
  WriteUninstaller "$INSTDIR\uninstall.exe"
  WriteRegStr HKLM "${UNINSTALL_KEY}" "DisplayName" "qv"
  WriteRegStr HKLM "${UNINSTALL_KEY}" "DisplayVersion" "${VERSION}"
  WriteRegStr HKLM "${UNINSTALL_KEY}" "DisplayIcon" "$INSTDIR\uninstall.exe"
  WriteRegStr HKLM "${UNINSTALL_KEY}" "InstallLocation" "$INSTDIR"
  WriteRegStr HKLM "${UNINSTALL_KEY}" "UninstallString" '"$INSTDIR\uninstall.exe"'
  WriteRegStr HKLM "${UNINSTALL_KEY}" "QuietUninstallString" '"$INSTDIR\uninstall.exe" /S'
  WriteRegDWORD HKLM "${UNINSTALL_KEY}" "NoModify" 1
  WriteRegDWORD HKLM "${UNINSTALL_KEY}" "NoRepair" 1
  ${If} ${Errors}
    SetErrorLevel 2
    Abort "Files or settings could not be written."
  ${EndIf}
SectionEnd

Section /o "Start qv at log-on" section_logon
  WriteRegStr HKLM "${RUN_KEY}" "qv" '"$INSTDIR\qv.exe"'
SectionEnd

Section /o "qv_client: viewer for the command line" section_client
  SetOutPath "$INSTDIR"
  ClearErrors
  File "${STAGE}\qv_client.exe"
  ${If} ${Errors}
    SetErrorLevel 2
    Abort "qv_client.exe could not be written."
  ${EndIf}
SectionEnd

Section /o "qv_host: host on TCP port 7777" section_host
  SetOutPath "$INSTDIR"
  ClearErrors
  File "${STAGE}\qv_host.exe"
  ${If} ${Errors}
    SetErrorLevel 2
    Abort "qv_host.exe could not be written."
  ${EndIf}
  !insertmacro Firewall 'add rule name="${RULE}" dir=in action=allow \
    program="$INSTDIR\qv_host.exe" protocol=TCP localport=7777 profile=domain,private'
  ${If} $0 != 0
    DetailPrint "The firewall took no rule for qv_host: others may not reach it."
    MessageBox MB_OK|MB_ICONEXCLAMATION "The firewall of Windows took no rule for TCP port \
      7777. Until it lets qv_host through, other machines cannot reach it." /SD IDOK
  ${EndIf}
SectionEnd

Section -size
  ${GetSize} "$INSTDIR" "/S=0K" $0 $1 $2
  WriteRegDWORD HKLM "${UNINSTALL_KEY}" "EstimatedSize" $0
SectionEnd

LangString about_qv ${LANG_ENGLISH} "The desktop application, with an entry in the start menu."
LangString about_logon ${LANG_ENGLISH} "qv starts when anyone logs on to this computer."
LangString about_client ${LANG_ENGLISH} "Opens one session from a command prompt or a script."
LangString about_host ${LANG_ENGLISH} "Lets viewers connect directly. The firewall gets a rule \
  for it, on private and domain networks."
!insertmacro MUI_FUNCTION_DESCRIPTION_BEGIN
  !insertmacro MUI_DESCRIPTION_TEXT ${section_qv} $(about_qv)
  !insertmacro MUI_DESCRIPTION_TEXT ${section_logon} $(about_logon)
  !insertmacro MUI_DESCRIPTION_TEXT ${section_client} $(about_client)
  !insertmacro MUI_DESCRIPTION_TEXT ${section_host} $(about_host)
!insertmacro MUI_FUNCTION_DESCRIPTION_END

!macro ChosenBy switch section
  ClearErrors
  ${GetOptions} $R0 "${switch}" $R1
  ${IfNot} ${Errors}
    !insertmacro SelectSection ${section}
  ${EndIf}
!macroend

Function .onInit
  ${IfNot} ${AtLeastWin${MINIMUM}}
    MessageBox MB_OK|MB_ICONSTOP "qv needs ${MINIMUM_NAME} or later." /SD IDOK
    SetErrorLevel 3
    Quit
  ${EndIf}
  ${GetParameters} $R0
  !insertmacro ChosenBy "/LOGON" ${section_logon}
  !insertmacro ChosenBy "/CLIENT" ${section_client}
  !insertmacro ChosenBy "/HOST" ${section_host}
FunctionEnd

Section Uninstall
  ; The folder of an uninstaller is a claim; what is removed is named file by file all the same.
  Call un.EndPrograms
  Call un.RemovePrograms
  RMDir "$INSTDIR"
  ReadRegStr $0 HKLM "${UNINSTALL_KEY}" "InstallLocation"
  ${If} $0 == $INSTDIR
    DeleteRegKey HKLM "${UNINSTALL_KEY}"
  ${EndIf}

  ; What the programs wrote, where they write it. Other users' caches cannot be reached.
  ReadEnvStr $0 PROGRAMDATA
  ${If} $0 == ""
    StrCpy $0 "C:\ProgramData"
  ${EndIf}
  SetShellVarContext current
  ${GetParameters} $R0
  ClearErrors
  ${GetOptions} $R0 "/REMOVEDATA" $R1
  ${If} ${Errors}
    MessageBox MB_YESNO|MB_ICONQUESTION|MB_DEFBUTTON2 "Remove this computer's ID and log \
      ($0\qv), and your history and picture cache ($LOCALAPPDATA\qv), as well?" \
      /SD IDNO IDYES remove_data
    Return
  ${EndIf}
  remove_data:
  Delete "$0\qv\id.txt"
  Delete "$0\qv\host.txt"
  Delete "$0\qv\relay.txt"
  Delete "$0\qv\qv_server.log"
  RMDir "$0\qv"
  Delete "$LOCALAPPDATA\qv\history.txt"
  Delete "$LOCALAPPDATA\qv\tiles.bin"
  Delete "$LOCALAPPDATA\qv\tiles.bin.tmp"
  RMDir "$LOCALAPPDATA\qv"
SectionEnd
