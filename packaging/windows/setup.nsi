; The setup program for Windows x64; build-setup compiles it.
;
;   TavroVssAgentGUI-1.0.0-windows-x64-setup.exe [/S] [/D=C:\Another Folder]
;   "C:\Program Files\Tavro\uninstall.exe" [/S] [_?=C:\Program Files\Tavro]
;
; /S asks and shows nothing. /D= stands last and without quotes, even if there are blanks in the path; so does _?=, with
; which the uninstaller does not copy itself to the folder for temporary files, so that the caller can wait for its end.
; A running program cannot be deleted, so uninstall.exe then stays in the folder. A copy of it removes it too:
;
;   copy "C:\Program Files\Tavro\uninstall.exe" "%TEMP%\tavro-uninstall.exe"
;   "%TEMP%\tavro-uninstall.exe" /S _?=C:\Program Files\Tavro
;
; Without _?=, uninstall.exe makes and starts such a copy by itself, so nothing stays when Windows removes the program.
;
; Exit codes of both:
;   0  done
;   1  cancelled by the user
;   2  the setup file is damaged, or it could not unpack itself
;   3  started by somebody who is not an administrator
;   4  Windows is older than Windows 7 SP1 or Windows Server 2008 R2 SP1
;   5  another setup or uninstaller of this program runs
;   6  a newer version is installed
;   7  the program or the console tool runs, or a file of the installation is open elsewhere; nothing was changed. With
;      /S, each file is tried for 3 seconds.
;   8  a file, a folder, a shortcut or a value of the registry could not be written or removed
;   9  the folder cannot be used: it is no full path on a drive that exists, it is the root of a drive, its path goes
;      through a file or is longer than 200 bytes in UTF-8, or /D= does not stand as described above
;
; Each end after the check for an administrator is a line of %ProgramData%\Tavro\logs\TavroVssAgentGUI-setup.log, in
; UTF-8: UTC time, version, what was done, "folder", "result".
;
; An installation that fails or is killed leaves each file either old or new, and running setup again mends it: all
; files are first written under another name beside their targets, then the targets are checked, and only then replaced
; one by one. The customer's TavroVssAgent.exe in the same folder is never touched.

Target amd64-unicode
SetCompressor /SOLID lzma
SetDateSave off
CRCCheck force
RequestExecutionLevel admin
ManifestSupportedOS Win7 Win8 Win8.1 Win10
ManifestDPIAware true

!define ID "TavroVssAgentGUI"
!define PROGRAM "${ID}.exe"
!define TITLE "Tavro VSS Checkpoint"
!define ENTRY "Software\Microsoft\Windows\CurrentVersion\Uninstall\${ID}"
!define FILE_LIST "Software\Tavro\${ID}\Files" ; one value for each installed file, so that an upgrade knows them
!define UNINSTALLER "uninstall.exe"
!define NEW ".new" ; what the names of files end with until they replace their targets
!define MAX_FOLDER_LENGTH 200 ; bytes of UTF-8; the path of the settings must be shorter than 260 for the program

!define EXIT_NO_ADMINISTRATOR 3
!define EXIT_OLD_WINDOWS 4
!define EXIT_SECOND_SETUP 5
!define EXIT_DOWNGRADE 6
!define EXIT_IN_USE 7
!define EXIT_NOT_WRITTEN 8
!define EXIT_BAD_FOLDER 9

; The owner is the group of the administrators; they and the system may do everything, users may read and start. Nothing
; is inherited from above, and what is made inside inherits this.
!define RIGHTS "O:BAD:P(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)(A;OICI;0x1200a9;;;BU)"

!include FileFunc.nsh
!include LogicLib.nsh
!include MUI2.nsh
!include WinVer.nsh
!include WordFunc.nsh
!include "${FILES}"

Name "${TITLE}"
OutFile "${OUT}"
BrandingText "${TITLE} ${VERSION}"
InstallDir "$PROGRAMFILES64\Tavro"
InstallDirRegKey HKLM "${ENTRY}" "InstallLocation" ; /D= wins over it
VIProductVersion "${VERSION}.0"
VIFileVersion "${VERSION}.0"
VIAddVersionKey /LANG=1033 "ProductName" "${TITLE}"
VIAddVersionKey /LANG=1033 "CompanyName" "Tavro"
VIAddVersionKey /LANG=1033 "FileDescription" "Setup of ${TITLE}"
VIAddVersionKey /LANG=1033 "FileVersion" "${VERSION}"
VIAddVersionKey /LANG=1033 "ProductVersion" "${VERSION}"
VIAddVersionKey /LANG=1033 "LegalCopyright" "Tavro"
VIAddVersionKey /LANG=1033 "Comments" "commit ${COMMIT}"

Var Doing      ; what the log calls the work, such as: upgrade from 0.9.0
Var Folder     ; the folder in which file and probe look for a name
Var File       ; a name, without a folder
Var ErrorCode  ; of Windows; 0 is success
Var Reason     ; why the work ends early
Var ExitCode
Var FolderMade    ; $INSTDIR, or the outermost folder above it, if this run has made it
Var EarlierFolder ; where the installed version is
Var Index

!define MUI_ICON "${ICON}"
!define MUI_UNICON "${ICON}"
!define MUI_WELCOMEFINISHPAGE_BITMAP "${PANEL}"
!define MUI_UNCONFIRMPAGE_TEXT_TOP "The program is removed from this computer. The settings (*.conf), the tweaks and \
the logs stay."
!define MUI_ABORTWARNING
!define MUI_WELCOMEPAGE_TEXT "Setup installs ${TITLE} ${VERSION} for all users of this computer.$\r$\n$\r$\nAn \
older version is replaced. Its settings, its tweaks and its logs are kept."
!define MUI_FINISHPAGE_TEXT "${TITLE} is in the Start menu, in the folder Tavro.$\r$\n$\r$\nWrite the four words of \
the connection into ${PROGRAM}.conf beside the program; Guide in the Start menu tells how. Check the installation, \
beside it, tells whether something is missing."
!define MUI_DIRECTORYPAGE_TEXT_TOP "Setup installs ${TITLE} into this folder. A folder that exists keeps its rights, \
so choose one where only administrators may write: the program has the rights of an administrator."
!insertmacro MUI_PAGE_WELCOME
!insertmacro MUI_PAGE_DIRECTORY
!insertmacro MUI_PAGE_INSTFILES
!insertmacro MUI_PAGE_FINISH
!insertmacro MUI_UNPAGE_CONFIRM
!insertmacro MUI_UNPAGE_INSTFILES
!insertmacro MUI_LANGUAGE "English"

; What setup and the uninstaller share. All paths go into System::Call in registers: its parser would take parts of a
; path for its own syntax.
!macro COMMON_FUNCTIONS un

; Makes $Folder and those missing above it with RIGHTS from the beginning; gives an existing one these rights if $0 is
; "always". $ErrorCode is 0, 183 if the folder was there (not with "always"), or what failed.
Function ${un}secureFolder
  Push $1
  Push $2
  Push $3
  Push $4
  Push $5
  StrCpy $1 "${RIGHTS}"
  System::Call 'advapi32::ConvertStringSecurityDescriptorToSecurityDescriptorW(w r1, i 1, *p .r2, p 0) i .r5 ?e'
  Pop $ErrorCode
  ${If} $5 <> 0
    System::Call '*(&i4 24, &i4 0, p r2, p 0) p .r3' ; a SECURITY_ATTRIBUTES
    StrCpy $4 2 ; where the part of the path ends that is made: after "C:"
    ${Do}
      IntOp $4 $4 + 1
      StrCpy $1 $Folder 1 $4
      ${If} $1 == "\"
      ${OrIf} $1 == ""
        StrCpy $1 $Folder $4
        System::Call 'kernel32::CreateDirectoryW(w r1, p r3) i .r5 ?e'
        Pop $ErrorCode
        ${If} $5 <> 0
          StrCpy $ErrorCode 0
          ${If} $FolderMade == ""
          ${AndIf} $Folder == $INSTDIR
            StrCpy $FolderMade $1
          ${EndIf}
        ${EndIf}
      ${EndIf}
    ${LoopUntil} $1 == $Folder
    System::Free $3
    ${If} $ErrorCode = 183
    ${AndIfNot} ${FileExists} "$Folder\*.*"
      StrCpy $ErrorCode 267 ; it is a file
    ${ElseIf} $ErrorCode = 183
    ${AndIf} $0 == "always"
      System::Call 'advapi32::GetSecurityDescriptorOwner(p r2, *p .r3, *i)'
      System::Call 'advapi32::GetSecurityDescriptorDacl(p r2, *i, *p .r5, *i)'
      ; 1 is a file or folder; 0x80000005 are the owner and a list of rights that inherits nothing.
      System::Call 'advapi32::SetNamedSecurityInfoW(w r1, i 1, i 0x80000005, p r3, p 0, p r5, p 0) i .r5'
      StrCpy $ErrorCode $5
    ${EndIf}
    System::Call 'kernel32::LocalFree(p r2)'
  ${EndIf}
  Pop $5
  Pop $4
  Pop $3
  Pop $2
  Pop $1
FunctionEnd

; Adds a line about the work and its result, in $0, to the log. If that is impossible, the work goes on without it.
Function ${un}log
  Push $1
  Push $2
  Push $3
  Push $4
  Push $5
  Push $6
  Push $0
  StrCpy $0 ""
  StrCpy $Folder "$APPDATA\Tavro\logs"
  Call ${un}secureFolder
  Pop $0
  System::Call '*(&i2, &i2, &i2, &i2, &i2, &i2, &i2, &i2) p .r1'
  System::Call 'kernel32::GetSystemTime(p r1)'
  System::Call '*$1(&i2 .r2, &i2 .r3, &i2, &i2 .r4, &i2 .r5, &i2 .r6, &i2 .R0, &i2 .R1)'
  System::Free $1
  IntFmt $1 "%04d" $2
  IntFmt $2 "-%02d" $3
  StrCpy $1 "$1$2"
  IntFmt $2 "-%02d" $4
  StrCpy $1 "$1$2"
  IntFmt $2 " %02d" $5
  StrCpy $1 "$1$2"
  IntFmt $2 ":%02d" $6
  StrCpy $1 "$1$2"
  IntFmt $2 ":%02d" $R0
  StrCpy $1 "$1$2"
  IntFmt $2 ".%03d" $R1
  StrCpy $1 '$1$2,${VERSION},$Doing,"$INSTDIR' 500 ; what is too long is cut, but never the end of the line
  StrCpy $1 '$1","$0' 1000
  StrCpy $1 '$1"$\r$\n'
  StrCpy $2 "$APPDATA\Tavro\logs\${ID}-setup.log"
  ; 4 only appends; 7 shares with everybody; 4 opens or makes; 0x00200080 does not follow a link.
  System::Call 'kernel32::CreateFileW(w r2, i 4, i 7, p 0, i 4, i 0x00200080, p 0) p .r3'
  ${If} $3 P<> -1
    System::Alloc 4096 ; 1,024 units of UTF-16 are at most 3,072 bytes
    Pop $4
    System::Call 'kernel32::WideCharToMultiByte(i 65001, i 0, w r1, i -1, p r4, i 4096, p 0, p 0) i .r5'
    IntOp $5 $5 - 1 ; the zero at the end
    System::Call 'kernel32::WriteFile(p r3, p r4, i r5, *i .r6, p 0)'
    System::Call 'kernel32::CloseHandle(p r3)'
    System::Free $4
  ${EndIf}
  Pop $6
  Pop $5
  Pop $4
  Pop $3
  Pop $2
  Pop $1
FunctionEnd

; Ends the work with $ExitCode, and logs $Reason.
Function ${un}end
  SetErrorLevel $ExitCode
  StrCpy $0 "exit code $ExitCode: $Reason"
  Call ${un}log
  DetailPrint "$Reason"
  Abort
FunctionEnd

; Says $Reason, and ends the work with $ExitCode.
Function ${un}refuse
  MessageBox MB_OK|MB_ICONSTOP "$Reason" /SD IDOK
  Call ${un}end
FunctionEnd

; Adds what $ErrorCode means to $Reason.
Function ${un}addErrorText
  System::Call 'kernel32::FormatMessageW(i 0x12ff, p 0, i $ErrorCode, i 0, w .r0, i ${NSIS_MAX_STRLEN}, p 0) i .r1'
  ${If} $1 = 0
    StrCpy $0 ""
  ${EndIf}
  StrCpy $Reason "$Reason: $0(Windows error $ErrorCode)"
FunctionEnd

; Finds out whether $File in $Folder can be replaced or removed: $ErrorCode is 0 if so, or if there is no such file.
Function ${un}probe
  StrCpy $0 "$Folder\$File"
  SetFileAttributes "$0" NORMAL
  ; 0x40010000 writes and deletes, 7 shares with everybody, 3 opens what exists.
  System::Call 'kernel32::CreateFileW(w r0, i 0x40010000, i 7, p 0, i 3, i 0x00200080, p 0) p .r1 ?e'
  Pop $ErrorCode
  ${If} $1 P<> -1
    System::Call 'kernel32::CloseHandle(p r1)'
    StrCpy $ErrorCode 0
  ${ElseIf} $ErrorCode = 2
  ${OrIf} $ErrorCode = 3
    StrCpy $ErrorCode 0
  ${EndIf}
FunctionEnd

; Ends the work if $File in $Folder is in use or cannot be replaced. With a window, the user may close the program and
; try again; without, a scanner for viruses gets 3 seconds for its own use of the file.
Function ${un}demand
  StrCpy $2 12
  ${Do}
    Call ${un}probe
    ${If} $ErrorCode = 0
      Return
    ${EndIf}
    IntOp $2 $2 - 1
    ${If} ${Silent}
    ${AndIf} $2 >= 0
      Sleep 250
      ${Continue}
    ${ElseIf} $ErrorCode = 32
      StrCpy $ExitCode ${EXIT_IN_USE}
      StrCpy $Reason "$Folder\$File runs or is open in another program. Close it, and try again. Nothing was changed."
    ${Else}
      StrCpy $ExitCode ${EXIT_NOT_WRITTEN}
      StrCpy $Reason "$Folder\$File cannot be replaced or removed"
      Call ${un}addErrorText
    ${EndIf}
    ${IfCmd} MessageBox MB_RETRYCANCEL|MB_ICONEXCLAMATION "$Reason" /SD IDCANCEL IDCANCEL ${||} ${ExitDo} ${|}
  ${Loop}
  Call ${un}end
FunctionEnd

; The checks that need no folder.
Function ${un}checkMachine
  UserInfo::GetAccountType
  Pop $0
  ${If} $0 != "Admin"
    SetErrorLevel ${EXIT_NO_ADMINISTRATOR}
    MessageBox MB_OK|MB_ICONSTOP "Only an administrator can do this." /SD IDOK
    Abort
  ${EndIf}
  SetShellVarContext all
  ${IfNot} ${AtLeastBuild} 7601
    StrCpy $ExitCode ${EXIT_OLD_WINDOWS}
    StrCpy $Reason "${TITLE} needs Windows 7 SP1, Windows Server 2008 R2 SP1 or later."
    Call ${un}refuse
  ${EndIf}
  System::Call 'kernel32::CreateMutexW(p 0, i 1, w "Global\${ID}-setup") p .r0 ?e'
  Pop $ErrorCode
  ${If} $0 P= 0
  ${OrIf} $ErrorCode = 183
    StrCpy $ExitCode ${EXIT_SECOND_SETUP}
    StrCpy $Reason "Another setup or uninstaller of ${TITLE} runs. Wait for its end, and start again."
    Call ${un}refuse
  ${EndIf}
FunctionEnd

!macroend
!insertmacro COMMON_FUNCTIONS ""
!insertmacro COMMON_FUNCTIONS "un."

; The names that an earlier setup wrote into the registry are used only as plain names in the folder of the
; installation, and never for what is the customer's: $0 is 1 if $File is such a name. A dot or a blank at the end is
; refused because Windows leaves it out, and so means another file.
Function isInstallable
  StrCpy $0 1
  StrCpy $1 $File 5 -5
  StrCpy $2 $File 1 -1
  ${If} $1 == ".conf"
  ${OrIf} $2 == "."
  ${OrIf} $2 == " "
  ${OrIf} $File == "TavroVssAgent.exe"
  ${OrIf} $File == "tweaks"
    StrCpy $0 0
  ${EndIf}
  StrCpy $1 0
  ${Do}
    StrCpy $2 $File 1 $1
    ${If} $2 == "\"
    ${OrIf} $2 == "/"
    ${OrIf} $2 == ":"
      StrCpy $0 0
    ${EndIf}
    IntOp $1 $1 + 1
  ${LoopUntil} $2 == ""
FunctionEnd

; Calls the function with $File for each file that an earlier setup has installed.
!macro EACH_EARLIER_FILE FUNCTION
  StrCpy $Index 0
  ${Do}
    EnumRegValue $File HKLM "${FILE_LIST}" $Index
    ${If} $File == ""
    ${OrIf} $EarlierFolder == ""
      ${ExitDo}
    ${EndIf}
    IntOp $Index $Index + 1
    Call isInstallable
    ${If} $0 = 1
      Call ${FUNCTION}
    ${EndIf}
  ${Loop}
  ClearErrors ; the end of the list is none
!macroend

!macro COMPARE NAME
  ${If} $File == "${NAME}"
    StrCpy $0 1
  ${EndIf}
!macroend

Function removeIfObsolete
  StrCpy $0 0
  !insertmacro EACH_FILE COMPARE
  !insertmacro COMPARE "${UNINSTALLER}"
  ${If} $0 = 1
  ${AndIf} $EarlierFolder == $INSTDIR
    Return
  ${EndIf}
  Delete "$EarlierFolder\$File"
  ${If} ${FileExists} "$EarlierFolder\$File"
    StrCpy $ExitCode ${EXIT_NOT_WRITTEN}
    StrCpy $Reason "$EarlierFolder\$File of the earlier version cannot be removed. Start again."
    Call refuse
  ${EndIf}
  ${If} $0 = 0
    DeleteRegValue HKLM "${FILE_LIST}" $File
    IntOp $Index $Index - 1
  ${EndIf}
FunctionEnd

; Makes $File with the suffix NEW as an empty file, because this tells why it is impossible.
Function makeNewFile
  StrCpy $0 "$INSTDIR\$File${NEW}"
  SetFileAttributes $0 NORMAL
  ; 0x40000000 writes, 2 makes or empties, 0x00200080 does not follow a link.
  System::Call 'kernel32::CreateFileW(w r0, i 0x40000000, i 0, p 0, i 2, i 0x00200080, p 0) p .r1 ?e'
  Pop $ErrorCode
  ${If} $1 P<> -1
    System::Call 'kernel32::CloseHandle(p r1)'
    ClearErrors
    Return
  ${EndIf}
  StrCpy $ExitCode ${EXIT_NOT_WRITTEN}
  StrCpy $Reason "$0 cannot be written. Nothing was changed"
  Call addErrorText
  Call refuse
FunctionEnd

Function checkNewFile
  ${If} ${Errors}
    StrCpy $ExitCode ${EXIT_NOT_WRITTEN}
    StrCpy $Reason "$INSTDIR\$File${NEW} could not be written. Nothing was changed."
    Call refuse
  ${EndIf}
FunctionEnd

; Puts the new $File in the place of the old one. A scanner for viruses may hold a new program open for a moment.
Function replace
  StrCpy $0 "$INSTDIR\$File${NEW}"
  StrCpy $1 "$INSTDIR\$File"
  StrCpy $3 40
  ${Do}
    ; 9 replaces an old file, and returns when that is on the disk.
    System::Call 'kernel32::MoveFileExW(w r0, w r1, i 9) i .r2 ?e'
    Pop $ErrorCode
    ${If} $2 <> 0
      Return
    ${EndIf}
    IntOp $3 $3 - 1
    Sleep 250
  ${LoopUntil} $3 = 0
  StrCpy $ExitCode ${EXIT_NOT_WRITTEN}
  StrCpy $Reason "$1 could not be replaced. Start setup again when that is mended"
  Call addErrorText
  Call refuse
FunctionEnd

; Ends the work if a newer version is installed, and finds out what the work is.
Function checkVersion
  StrCpy $Doing "install"
  ReadRegStr $EarlierFolder HKLM "${ENTRY}" "InstallLocation"
  ReadRegStr $0 HKLM "${ENTRY}" "DisplayVersion"
  ${IfNot} ${FileExists} "$EarlierFolder\${UNINSTALLER}" ; then it could not be removed first
  ${OrIf} $0 == ""
    Return
  ${EndIf}
  ${VersionCompare} "$0" "${VERSION}" $1
  ${If} $1 = 0
    StrCpy $Doing "repair"
  ${ElseIf} $1 = 2
    StrCpy $Doing "upgrade from $0"
  ${Else}
    StrCpy $Doing "downgrade from $0"
    StrCpy $ExitCode ${EXIT_DOWNGRADE}
    StrCpy $Reason "The newer version $0 is installed in $EarlierFolder. To install ${VERSION}, remove that one first; \
the settings, the tweaks and the logs stay."
    Call refuse
  ${EndIf}
FunctionEnd

; Makes the path in $1 plain: no "..", no "\" at its end. $1 is empty if setup cannot install into such a folder.
Function plainPath
  StrCpy $2 $1 2 1
  StrCpy $0 ""
  System::Call 'kernel32::GetFullPathNameW(w r1, i ${NSIS_MAX_STRLEN}, w .r0, p 0)'
  StrCpy $1 $0 1 -1
  ${If} $1 == "\"
    StrCpy $0 $0 -1
  ${EndIf}
  StrCpy $1 $0 2 1
  System::Call 'kernel32::WideCharToMultiByte(i 65001, i 0, w r0, i -1, p 0, i 0, p 0, p 0) i .r3'
  IntOp $3 $3 - 1 ; the zero at the end
  ${If} $2 != ":\"
  ${OrIf} $1 != ":\" ; the full path of C:\con is \\.\con
  ${OrIf} $3 < 4
  ${OrIf} $3 > ${MAX_FOLDER_LENGTH}
    StrCpy $0 ""
  ${EndIf}
  StrCpy $1 $0
FunctionEnd

; Says that the folder in $4 cannot be used, and ends the work.
Function refuseFolder
  StrCpy $ExitCode ${EXIT_BAD_FOLDER}
  StrCpy $Reason "The folder $4 cannot be used. It must be the full path of a folder on a drive, neither a root nor \
below a file, of at most ${MAX_FOLDER_LENGTH} bytes; /D= stands last, and takes it without quotes."
  Call refuse
FunctionEnd

; Ends the work if setup cannot install into $INSTDIR, and makes its path plain.
Function checkFolder
  StrCpy $1 $INSTDIR
  Call plainPath
  ${If} $1 == ""
    StrCpy $4 $INSTDIR
    Call refuseFolder
  ${EndIf}
  StrCpy $INSTDIR $1
FunctionEnd

; NSIS takes the usual folder, or that of the earlier version, if it does not understand what stands after /D= or cannot
; use it. This ends the work unless $INSTDIR is what was asked for.
Function checkFolderOption
  System::Call 'kernel32::GetCommandLineW() w .r0'
  StrCpy $1 0
  ${Do}
    StrCpy $2 $0 4 $1
    ${If} $2 == " /D="
    ${OrIf} $2 == '"/D=' ; the caller has put quotes around the whole option
      IntOp $1 $1 + 4
      StrCpy $1 $0 "" $1
      ${WordReplace} $1 '"' "" + $4 ; a quote would end the field of the log
      Call plainPath
      StrCpy $5 $1
      StrCpy $1 $INSTDIR
      Call plainPath
      ${If} $1 == ""
      ${OrIf} $1 != $5
        StrCpy $INSTDIR $4
        Call refuseFolder
      ${EndIf}
      Return
    ${EndIf}
    IntOp $1 $1 + 1
  ${LoopUntil} $2 == ""
FunctionEnd

; Makes $Folder, or gives an existing one the rights if $0 is "always"; ends the work if that fails.
Function demandFolder
  Call secureFolder
  ${If} $ErrorCode <> 0
  ${AndIf} $ErrorCode <> 183
    StrCpy $ExitCode ${EXIT_NOT_WRITTEN}
    StrCpy $Reason "The folder $Folder cannot be made, or its rights cannot be set"
    Call addErrorText
    Call refuse
  ${EndIf}
FunctionEnd

!macro DEMAND NAME
  StrCpy $File "${NAME}"
  Call demand
!macroend

!macro EXTRACT NAME
  StrCpy $File "${NAME}"
  Call makeNewFile
  File "/oname=$INSTDIR\${NAME}${NEW}" "${STAGE}/${NAME}"
  Call checkNewFile
!macroend

!macro REPLACE NAME
  StrCpy $File "${NAME}"
  Call replace
!macroend

!macro REGISTER NAME
  WriteRegStr HKLM "${FILE_LIST}" "${NAME}" ""
  FileOpen $0 "$INSTDIR\${NAME}" r
  FileSeek $0 0 END $1
  FileClose $0
  IntOp $Index $Index + $1
!macroend

!macro DELETE_NEW NAME
  Delete "$INSTDIR\${NAME}${NEW}"
!macroend

Function .onInit
  StrCpy $Doing "install"
  Call checkMachine
  Call checkVersion
  Call checkFolderOption
FunctionEnd

; Disables the button of the page where the user chooses $INSTDIR.
Function .onVerifyInstDir
  StrCpy $1 $INSTDIR
  Call plainPath
  ${If} $1 == ""
    Abort
  ${EndIf}
FunctionEnd

Section "${TITLE}"
  Call checkVersion
  Call checkFolder

  ; First what must be closed: nothing is written before.
  StrCpy $Folder $INSTDIR
  !insertmacro EACH_FILE DEMAND
  !insertmacro DEMAND "${UNINSTALLER}"
  StrCpy $Folder $EarlierFolder
  !insertmacro EACH_EARLIER_FILE demand

  StrCpy $0 ""
  StrCpy $Folder $INSTDIR
  Call demandFolder
  StrCpy $0 "always"
  StrCpy $Folder "$INSTDIR\tweaks"
  Call demandFolder

  SetOutPath "$INSTDIR\tweaks" ; the working folder of the shortcuts
  SetOverwrite try
  !insertmacro EACH_FILE EXTRACT
  StrCpy $File "${UNINSTALLER}"
  Call makeNewFile
  WriteUninstaller "$INSTDIR\${UNINSTALLER}${NEW}"
  Call checkNewFile

  StrCpy $Folder $INSTDIR
  !insertmacro EACH_FILE DEMAND
  !insertmacro EACH_FILE REPLACE
  !insertmacro REPLACE "${UNINSTALLER}"

  ClearErrors
  StrCpy $Index 0 ; bytes
  !insertmacro EACH_FILE REGISTER
  !insertmacro REGISTER "${UNINSTALLER}"
  IntOp $Index $Index + 1023
  IntOp $Index $Index / 1024
  WriteRegStr HKLM "${ENTRY}" "DisplayName" "${TITLE}"
  WriteRegStr HKLM "${ENTRY}" "DisplayVersion" "${VERSION}"
  WriteRegStr HKLM "${ENTRY}" "Publisher" "Tavro"
  WriteRegStr HKLM "${ENTRY}" "DisplayIcon" "$INSTDIR\${PROGRAM},0"
  WriteRegStr HKLM "${ENTRY}" "InstallLocation" "$INSTDIR"
  WriteRegStr HKLM "${ENTRY}" "UninstallString" '"$INSTDIR\${UNINSTALLER}"'
  WriteRegStr HKLM "${ENTRY}" "QuietUninstallString" '"$INSTDIR\${UNINSTALLER}" /S'
  WriteRegStr HKLM "${ENTRY}" "Comments" "commit ${COMMIT}"
  WriteRegDWORD HKLM "${ENTRY}" "EstimatedSize" $Index
  WriteRegDWORD HKLM "${ENTRY}" "NoModify" 1
  WriteRegDWORD HKLM "${ENTRY}" "NoRepair" 1
  CreateDirectory "$SMPROGRAMS\Tavro"
  CreateShortcut "$SMPROGRAMS\Tavro\Add VSS Checkpoint.lnk" "$INSTDIR\${PROGRAM}"
  ; In the console that stays, the tool can be started by its name.
  CreateShortcut "$SMPROGRAMS\Tavro\Check the installation.lnk" "$SYSDIR\cmd.exe" \
      '/k ""$INSTDIR\tavro.exe" doctor & set "PATH=$INSTDIR;%PATH%""' "$INSTDIR\tavro.exe"
  CreateShortcut "$SMPROGRAMS\Tavro\Guide.lnk" "$INSTDIR\Guide.txt"
  ${If} ${Errors}
    StrCpy $ExitCode ${EXIT_NOT_WRITTEN}
    StrCpy $Reason "The files are installed, but not all shortcuts and values of the registry. Start setup again."
    Call refuse
  ${EndIf}

  !insertmacro EACH_EARLIER_FILE removeIfObsolete
  StrCpy $0 "done"
  ${If} $EarlierFolder != ""
  ${AndIf} $EarlierFolder != $INSTDIR
    RMDir "$EarlierFolder\tweaks"
    RMDir "$EarlierFolder"
    ${If} ${FileExists} "$EarlierFolder"
      StrCpy $0 "done; moved from $EarlierFolder, where settings and tweaks stay"
    ${EndIf}
  ${EndIf}
  Call log
SectionEnd

Function .onInstFailed
  ${If} $ExitCode == "" ; NSIS itself gave up while it unpacked a file, and said so
    StrCpy $ExitCode ${EXIT_NOT_WRITTEN}
    StrCpy $Reason "$INSTDIR\$File${NEW} could not be written completely; the disk may be full. Nothing was changed."
    SetErrorLevel $ExitCode
    StrCpy $0 "exit code $ExitCode: $Reason"
    Call log
  ${EndIf}
  SetOutPath $TEMP
  !insertmacro EACH_FILE DELETE_NEW
  !insertmacro DELETE_NEW "${UNINSTALLER}"
  ${If} $FolderMade != ""
    RMDir "$INSTDIR\tweaks"
    StrCpy $Folder $INSTDIR
    ${Do}
      RMDir $Folder
      ${If} $Folder == $FolderMade
        ${ExitDo}
      ${EndIf}
      ${GetParent} $Folder $Folder
    ${Loop}
  ${EndIf}
FunctionEnd

!macro UN_DEMAND NAME
  StrCpy $File "${NAME}"
  Call un.demand
!macroend

!macro UN_DELETE NAME
  Delete "$INSTDIR\${NAME}${NEW}"
  Delete "$INSTDIR\${NAME}"
  ${If} ${FileExists} "$INSTDIR\${NAME}"
    StrCpy $ExitCode ${EXIT_NOT_WRITTEN}
    StrCpy $Reason "$INSTDIR\${NAME} could not be removed. Start again."
    Call un.refuse
  ${EndIf}
!macroend

Function un.onInit
  StrCpy $Doing "uninstall"
  Call un.checkMachine
FunctionEnd

Section Uninstall
  StrCpy $Folder $INSTDIR
  !insertmacro EACH_FILE UN_DEMAND
  SetOutPath $TEMP
  !insertmacro EACH_FILE UN_DELETE

  ReadRegStr $0 HKLM "${ENTRY}" "InstallLocation"
  ${If} $0 == $INSTDIR ; otherwise they belong to an installation elsewhere
    Delete "$SMPROGRAMS\Tavro\Add VSS Checkpoint.lnk"
    Delete "$SMPROGRAMS\Tavro\Check the installation.lnk"
    Delete "$SMPROGRAMS\Tavro\Guide.lnk"
    RMDir "$SMPROGRAMS\Tavro"
    DeleteRegKey HKLM "${ENTRY}"
    DeleteRegKey HKLM "${FILE_LIST}"
    DeleteRegKey /ifempty HKLM "Software\Tavro\${ID}"
    DeleteRegKey /ifempty HKLM "Software\Tavro"
  ${EndIf}

  Delete "$INSTDIR\${UNINSTALLER}${NEW}"
  Delete "$INSTDIR\${UNINSTALLER}" ; fails if it runs from there
  ; Only what is empty goes; the program makes test_appdata in its working folder.
  RMDir "$INSTDIR\tweaks\test_appdata"
  RMDir "$INSTDIR\tweaks"
  RMDir "$INSTDIR"
  StrCpy $0 "done"
  Call un.log
SectionEnd
