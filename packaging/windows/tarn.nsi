; The Windows installer, tarn-<version>-win64-setup.exe, made by installer.sh
; from the unpacked zip. Per machine: the programs into Program Files, the
; service registered by TarnSvc.exe itself, set to start with Windows and
; started, firewall rules for the manager, a Start-menu shortcut and an
; uninstall entry. Over an older version it upgrades in place, keeping
; TarnSrv.cfg; the identity, settings and logs live outside the programs'
; folder and are never touched.
;
; The service runs under its own virtual account, NT SERVICE\TarnSvc. The
; programs' folder and C:\ProgramData\Tarn are made the administrators' before
; anything is written there (a folder a user made first is taken over, a
; junction or link refused), so that nothing the service runs or writes
; through can be changed by a user.
;
; Defines (makensis -D): VERSION, STAGE (the unpacked zip), REMOVE_FILES (an
; include that deletes what STAGE holds), OUTFILE; SERVICE_ACCOUNT, for the
; checks' older installer only, registers another account (LocalSystem, as
; versions before 1.4 did).
;
; Options: /S silent, /PORT=n the session port (written to TarnSrv.cfg).
; Every command run and its result go to C:\ProgramData\Tarn\install.log.

Unicode true
Target amd64-unicode
RequestExecutionLevel admin
ManifestSupportedOS all
SetCompressor /SOLID lzma
Name "Tarn ${VERSION}"
OutFile "${OUTFILE}"
InstallDir "$PROGRAMFILES64\Tarn"
BrandingText "Tarn ${VERSION}"
ShowInstDetails show
ShowUninstDetails show
VIProductVersion "${VERSION}.0"
VIAddVersionKey "ProductName" "Tarn"
VIAddVersionKey "CompanyName" "VARNOK Labs"
VIAddVersionKey "FileDescription" "Tarn ${VERSION} setup"
VIAddVersionKey "FileVersion" "${VERSION}"
VIAddVersionKey "ProductVersion" "${VERSION}"
VIAddVersionKey "LegalCopyright" "VARNOK Labs"

!include LogicLib.nsh
!include FileFunc.nsh
!include TextFunc.nsh
!include WordFunc.nsh

!define PUBLISHER "VARNOK Labs"
!define UNINSTALL_KEY "Software\Microsoft\Windows\CurrentVersion\Uninstall\Tarn"
; With the shell context "all", $APPDATA is C:\ProgramData.
!define DATA "$APPDATA\Tarn"
!define LOG "${DATA}\install.log"
!define SHORTCUTS "$SMPROGRAMS\Tarn"
!define SESSION_RULE "Tarn session"
!define DISCOVERY_RULE "Tarn discovery"
!define DISCOVERY_PORTS "49152-49172"

!ifndef SERVICE_ACCOUNT
!define SERVICE_ACCOUNT "NT SERVICE\TarnSvc"
!endif
; Where the identity lives: the local application data of the service's
; account, as Qt finds it; LocalSystem's before 1.4.
!define IDENTITY_PART "AppData\Local\VARNOK Labs\VARNOK Manager"
!define IDENTITY "$WINDIR\ServiceProfiles\TarnSvc\${IDENTITY_PART}"
!define OLD_IDENTITY "$WINDIR\System32\config\systemprofile\${IDENTITY_PART}"

; Exit codes besides NSIS' own (1 cancelled, 2 aborted).
!define EXIT_SAME_VERSION 3
!define EXIT_NEWER_INSTALLED 4
!define EXIT_NOT_INSTALLED 5
!define EXIT_BAD_OPTION 6
!define EXIT_STEP_FAILED 7
!define EXIT_NOT_ADMIN 8
!define EXIT_UNSAFE_FOLDER 9

Var Port          ; the session port, from /PORT or TarnSrv.cfg
Var Upgrading     ; the version installed before, when upgrading
Var FailCode
Var FailText
Var LogReady      ; 1 once the log's folder is the administrators'
Var LockedFolder  ; the folder being taken over, for RefuseLinkBelow

Page directory SkipOnUpgrade
Page instfiles
UninstPage uninstConfirm
UninstPage instfiles

; Functions both the installer and the uninstaller use; NSIS wants them
; twice, the uninstaller's named un.*.
!macro SharedFunctions UN
; Replaces the path on the stack with 1 when it is a junction or a link (a
; reparse point), else 0.
Function ${UN}IsLink
    Exch $0
    System::Call 'kernel32::GetFileAttributesW(w r0) i .r0'
    ${If} $0 == -1
        StrCpy $0 0
    ${EndIf}
    IntOp $0 $0 >> 10
    IntOp $0 $0 & 1
    Exch $0
FunctionEnd

; Appends the line on the stack to the log, once its folder is safe to
; write: until then a user may own it, or it may lead somewhere else. Looked
; at again for each line: earlier installers let the service's account
; rename the folder and leave a junction in its place, which the uninstaller
; would write through.
Function ${UN}LogLine
    Exch $0
    Push $1
    ${If} $LogReady != 1
        Goto done
    ${EndIf}
    Push "${DATA}"
    Call ${UN}IsLink
    Pop $1
    ${If} $1 == 1
        Goto done
    ${EndIf}
    ClearErrors
    FileOpen $1 "${LOG}" a
    ${IfNot} ${Errors}
        FileSeek $1 0 END
        FileWrite $1 "$0$\r$\n"
        FileClose $1
    ${EndIf}
    done:
    Pop $1
    Pop $0
FunctionEnd

; Says FailText on standard error (seen when the caller redirects it), in
; the log and in a message box unless silent, then ends with FailCode.
Function ${UN}Fail
    System::Call 'kernel32::GetStdHandle(i -12) p .r0'
    StrLen $1 "$FailText$\r$\n"
    System::Call 'kernel32::WriteFile(p r0, m "$FailText$\r$\n", i r1, *i .r2, p 0)'
    Push "error: $FailText"
    Call ${UN}LogLine
    MessageBox MB_OK|MB_ICONSTOP "$FailText" /SD IDOK
    SetErrorLevel $FailCode
    Quit
FunctionEnd

; Runs the command on the stack hidden, then logs it with its output and
; exit code, and leaves the exit code in $0.
Function ${UN}Run
    Exch $2
    Push $1
    nsExec::ExecToStack "$2"
    Pop $0
    Pop $1
    Push "> $2"
    Call ${UN}LogLine
    ${TrimNewLines} "$1" $1
    ${If} $1 != ""
        Push "$1"
        Call ${UN}LogLine
    ${EndIf}
    Push "exit $0"
    Call ${UN}LogLine
    Pop $1
    Pop $2
FunctionEnd

; Removes the programs once the stopped service has let go of them.
Function ${UN}RemovePrograms
    ${ForEach} $3 1 50 + 1
        ClearErrors
        Delete "$INSTDIR\TarnSrv.exe"
        Delete "$INSTDIR\TarnSvc.exe"
        ${IfNot} ${Errors}
            ${Break}
        ${EndIf}
        Sleep 200
    ${Next}
FunctionEnd

Function ${UN}RemoveFirewallRules
    Push 'netsh advfirewall firewall delete rule name="${SESSION_RULE}"'
    Call ${UN}Run
    Push 'netsh advfirewall firewall delete rule name="${DISCOVERY_RULE}"'
    Call ${UN}Run
FunctionEnd
!macroend
!insertmacro SharedFunctions ""
!insertmacro SharedFunctions "un."

!macro Fail CODE TEXT
    StrCpy $FailCode ${CODE}
    StrCpy $FailText "${TEXT}"
    Call ${UN}Fail
!macroend
!macro Run COMMAND
    Push `${COMMAND}`
    Call ${UN}Run
!macroend
!macro Log TEXT
    Push `${TEXT}`
    Call ${UN}LogLine
!macroend
!define UN ""

!macro RequireAdmin
    UserInfo::GetAccountType
    Pop $0
    ${If} $0 != "Admin"
        !insertmacro Fail ${EXIT_NOT_ADMIN} "Tarn needs administrator rights to change what is installed."
    ${EndIf}
!macroend

Function .onInit
    SetShellVarContext all
    !insertmacro RequireAdmin
    ${GetParameters} $R0
    ClearErrors
    ${GetOptions} $R0 "/PORT=" $Port
    ${IfNot} ${Errors}
        IntOp $R1 $Port + 0
        ${If} "$R1" != "$Port"
        ${OrIf} $R1 < 1
        ${OrIf} $R1 > 65535
            !insertmacro Fail ${EXIT_BAD_OPTION} "/PORT needs a port number from 1 to 65535, not '$Port'."
        ${EndIf}
    ${EndIf}
    ReadRegStr $Upgrading HKLM "${UNINSTALL_KEY}" "DisplayVersion"
    ${If} $Upgrading == ""
        Return
    ${EndIf}
    ReadRegStr $INSTDIR HKLM "${UNINSTALL_KEY}" "InstallLocation"
    ${VersionCompare} "$Upgrading" "${VERSION}" $R2
    ${If} $R2 == 0
        !insertmacro Fail ${EXIT_SAME_VERSION} "Tarn ${VERSION} is already installed in $INSTDIR."
    ${ElseIf} $R2 == 1
        !insertmacro Fail ${EXIT_NEWER_INSTALLED} "Tarn $Upgrading is installed in $INSTDIR, newer than this installer's ${VERSION}."
    ${EndIf}
FunctionEnd

Function SkipOnUpgrade
    ${If} $Upgrading != ""
        Abort
    ${EndIf}
FunctionEnd

; The port TarnSrv.cfg names ("PortNr = n"), or none.
Function ReadConfiguredPort
    StrCpy $Port ""
    ClearErrors
    ${ConfigRead} "$INSTDIR\TarnSrv.cfg" "PortNr" $R0
    ${If} ${Errors}
        Return
    ${EndIf}
    ${WordFind} "$R0" "=" "+1}" $R0
    ${WordFind} "$R0" " " "+1" $R0
    IntOp $R1 $R0 + 0
    ${If} "$R1" == "$R0"
    ${AndIf} $R1 >= 1
    ${AndIf} $R1 <= 65535
        StrCpy $Port $R1
    ${EndIf}
FunctionEnd

Function WriteConfiguration
    ; An operator's TarnSrv.cfg survives upgrades.
    ${IfNot} ${FileExists} "$INSTDIR\TarnSrv.cfg"
        File "${STAGE}/TarnSrv.cfg"
    ${EndIf}
    ${If} $Port != ""
        ${ConfigWrite} "$INSTDIR\TarnSrv.cfg" "PortNr" " = $Port" $R0
    ${EndIf}
    Call ReadConfiguredPort
FunctionEnd

Function WriteUninstallEntry
    WriteUninstaller "$INSTDIR\Uninstall.exe"
    WriteRegStr HKLM "${UNINSTALL_KEY}" "DisplayName" "Tarn"
    WriteRegStr HKLM "${UNINSTALL_KEY}" "DisplayVersion" "${VERSION}"
    WriteRegStr HKLM "${UNINSTALL_KEY}" "Publisher" "${PUBLISHER}"
    WriteRegStr HKLM "${UNINSTALL_KEY}" "InstallLocation" "$INSTDIR"
    WriteRegStr HKLM "${UNINSTALL_KEY}" "DisplayIcon" "$INSTDIR\TarnSrv.exe"
    WriteRegStr HKLM "${UNINSTALL_KEY}" "UninstallString" '"$INSTDIR\Uninstall.exe"'
    ; Run in place and waited for (_?=), so that a script gets the
    ; uninstaller's exit code. Never from a copy in %TEMP%: SYSTEM's is
    ; C:\Windows\Temp, where a user can make the copy's name first and swap
    ; the program between the copy and its start.
    WriteRegStr HKLM "${UNINSTALL_KEY}" "QuietUninstallString" '"$INSTDIR\Uninstall.exe" /S _?=$INSTDIR'
    WriteRegDWORD HKLM "${UNINSTALL_KEY}" "NoModify" 1
    WriteRegDWORD HKLM "${UNINSTALL_KEY}" "NoRepair" 1
    ${GetSize} "$INSTDIR" "/S=0K" $0 $1 $2
    WriteRegDWORD HKLM "${UNINSTALL_KEY}" "EstimatedSize" $0
FunctionEnd

; TarnSvc.exe -i registers the service for demand start, with the delayed
; start already set; a server installed per machine should come back after a
; restart, once the network is up.
Function StartServiceWithWindows
    System::Call 'advapi32::OpenSCManagerW(p 0, p 0, i 1) p .r1'
    System::Call 'advapi32::OpenServiceW(p r1, w "TarnSvc", i 2) p .r2'
    System::Call 'advapi32::ChangeServiceConfigW(p r2, i -1, i 2, i -1, p 0, p 0, p 0, p 0, p 0, p 0, p 0) i .r0'
    System::Call 'advapi32::CloseServiceHandle(p r2)'
    System::Call 'advapi32::CloseServiceHandle(p r1)'
    !insertmacro Log "automatic start: $0"
    ${If} $0 == 0
        !insertmacro Fail ${EXIT_STEP_FAILED} "The service TarnSvc could not be set to start with Windows."
    ${EndIf}
FunctionEnd

Function AddFirewallRules
    Call RemoveFirewallRules
    ${If} $Port == ""
        !insertmacro Log "TarnSrv.cfg names no port: no rule for the session port"
    ${Else}
        !insertmacro Run 'netsh advfirewall firewall add rule name="${SESSION_RULE}" dir=in action=allow program="$INSTDIR\TarnSrv.exe" enable=yes protocol=TCP localport=$Port'
    ${EndIf}
    !insertmacro Run 'netsh advfirewall firewall add rule name="${DISCOVERY_RULE}" dir=in action=allow program="$INSTDIR\TarnSrv.exe" enable=yes protocol=UDP localport=${DISCOVERY_PORTS}'
FunctionEnd

!include "${__FILEDIR__}/folders.nsh"

; Waits up to 10 s for TarnSvc to reach the state in $R3 (1 stopped,
; 4 running): a start or stop asked for may still be pending when the
; command that asked returns.
Function WaitForServiceState
    System::Call 'advapi32::OpenSCManagerW(p 0, p 0, i 1) p .r1'
    System::Call 'advapi32::OpenServiceW(p r1, w "TarnSvc", i 4) p .r2'
    System::Call '*(i, i, i, i, i, i, i) p .r6'
    ${ForEach} $3 1 50 + 1
        System::Call 'advapi32::QueryServiceStatus(p r2, p r6) i .r0'
        System::Call '*$6(i, i .r5)'
        ${If} $0 == 0
        ${OrIf} $5 == $R3
            ${Break}
        ${EndIf}
        Sleep 200
    ${Next}
    System::Free $6
    System::Call 'advapi32::CloseServiceHandle(p r2)'
    System::Call 'advapi32::CloseServiceHandle(p r1)'
FunctionEnd

; An upgrade from a LocalSystem installation: the identity moves to the
; service's own profile, so that clients that pinned its key still trust the
; server. Windows makes that profile at the service's first start, so the
; service starts once (making an identity of its own, replaced here) before
; the files are copied.
Function MoveIdentity
    ${IfNot} ${FileExists} "${OLD_IDENTITY}\identity.crt"
    ${OrIf} ${FileExists} "${IDENTITY}\identity.crt"
        Return
    ${EndIf}
    !insertmacro Run '"$INSTDIR\TarnSvc.exe"'
    StrCpy $R3 4
    Call WaitForServiceState
    !insertmacro Run '"$INSTDIR\TarnSvc.exe" -t'
    StrCpy $R3 1
    Call WaitForServiceState
    CreateDirectory "${IDENTITY}"
    ClearErrors
    CopyFiles /SILENT "${OLD_IDENTITY}\identity.key" "${IDENTITY}\identity.key"
    CopyFiles /SILENT "${OLD_IDENTITY}\identity.crt" "${IDENTITY}\identity.crt"
    ${If} ${Errors}
        !insertmacro Fail ${EXIT_STEP_FAILED} "The TLS identity could not be moved from ${OLD_IDENTITY} to ${IDENTITY}."
    ${EndIf}
    Delete "${OLD_IDENTITY}\identity.key"
    Delete "${OLD_IDENTITY}\identity.crt"
    !insertmacro Log "identity moved from ${OLD_IDENTITY} to ${IDENTITY}"
FunctionEnd

Section "Tarn"
    Call LockDataFolder
    ${If} $Upgrading == ""
        !insertmacro Log "Tarn ${VERSION}: installing into $INSTDIR"
    ${Else}
        !insertmacro Log "Tarn ${VERSION}: upgrading $Upgrading in $INSTDIR"
        ; Removed and registered again: the account may change.
        !insertmacro Run '"$INSTDIR\TarnSvc.exe" -t'
        StrCpy $R3 1
        Call WaitForServiceState
        !insertmacro Run '"$INSTDIR\TarnSvc.exe" -u'
        ${If} $0 != 0
            !insertmacro Fail ${EXIT_STEP_FAILED} "The service TarnSvc of Tarn $Upgrading could not be removed; see ${LOG}."
        ${EndIf}
        Call RemovePrograms
    ${EndIf}
    ; Wherever the operator chose: nothing there may stay a user's.
    StrCpy $R6 "$INSTDIR"
    Call LockFolder
    Call LogLocked
    SetOutPath "$INSTDIR"
    File /r /x TarnSrv.cfg "${STAGE}/*.*"
    Call WriteConfiguration
    Call WriteUninstallEntry
    CreateDirectory "${SHORTCUTS}"
    CreateShortcut "${SHORTCUTS}\Tarn Manager.lnk" "$INSTDIR\TarnSrv.exe"
    Call AddFirewallRules

    !insertmacro Run '"$INSTDIR\TarnSvc.exe" -i "${SERVICE_ACCOUNT}"'
    ${If} $0 != 0
        !insertmacro Fail ${EXIT_STEP_FAILED} "The service TarnSvc could not be installed; see ${LOG}."
    ${EndIf}
    Call GrantDataToService
    Call MoveIdentity
    Call StartServiceWithWindows
    !insertmacro Run '"$INSTDIR\TarnSvc.exe"'
    ${If} $0 != 0
        !insertmacro Fail ${EXIT_STEP_FAILED} "The service TarnSvc could not be started; see ${LOG}."
    ${EndIf}
    !insertmacro Log "Tarn ${VERSION}: installed"
SectionEnd

!undef UN
!define UN "un."

Function un.onInit
    SetShellVarContext all
    !insertmacro RequireAdmin
    ReadRegStr $0 HKLM "${UNINSTALL_KEY}" "InstallLocation"
    ${If} $0 == ""
        !insertmacro Fail ${EXIT_NOT_INSTALLED} "Tarn is not installed."
    ${EndIf}
    StrCpy $INSTDIR $0
    ; The installer made the log's folder the administrators'; LogLine
    ; still writes nothing through a link.
    StrCpy $LogReady 1
FunctionEnd

; Run in place (_?=), the uninstaller cannot delete its own file, nor move
; it aside: NSIS keeps it open without sharing its deletion. A hidden command
; removes it and the folder once this process has ended. cmd.exe and
; PING.EXE by their full paths, from the system folder: cmd.exe looks in its
; working folder first, and a user may put a ping.bat in SYSTEM's %TEMP%.
Function un.RemoveSelfLater
    SetOutPath "$SYSDIR"
    ExecShell "open" "$SYSDIR\cmd.exe" '/c for /l %i in (1,1,30) do @("$SYSDIR\PING.EXE" -n 2 127.0.0.1 >nul & del /f /q "$INSTDIR\Uninstall.exe" 2>nul & if not exist "$INSTDIR\Uninstall.exe" (rmdir "$INSTDIR" 2>nul & exit))' SW_HIDE
    !insertmacro Log "$INSTDIR\Uninstall.exe and the folder go once the uninstaller has ended"
FunctionEnd

Section "Uninstall"
    !insertmacro Log "Tarn ${VERSION}: uninstalling from $INSTDIR"
    !insertmacro Run '"$INSTDIR\TarnSvc.exe" -t'
    !insertmacro Run '"$INSTDIR\TarnSvc.exe" -u'
    ${If} $0 != 0
        !insertmacro Fail ${EXIT_STEP_FAILED} "The service TarnSvc could not be removed; see ${LOG}."
    ${EndIf}
    Call un.RemovePrograms
    Call un.RemoveFirewallRules
    Delete "${SHORTCUTS}\Tarn Manager.lnk"
    RMDir "${SHORTCUTS}"
    Delete "$INSTDIR\TarnSrv.cfg"
    !include "${REMOVE_FILES}"
    DeleteRegKey HKLM "${UNINSTALL_KEY}"
    Delete "$INSTDIR\Uninstall.exe"
    RMDir "$INSTDIR"
    ${If} ${FileExists} "$INSTDIR\Uninstall.exe"
        Call un.RemoveSelfLater
    ${EndIf}
    !insertmacro Log "Tarn ${VERSION}: uninstalled; the identity, settings and logs stay"
SectionEnd
