/** @file
 * Default entry points of the camera control interface. Each entry point has
 * a global default under its name with a leading underscore (_ISP_Load) and a
 * weak alias under its plain name (ISP_Load) at the same address. An image
 * library overrides an entry point by defining the plain name; the underscore
 * name keeps reaching the default, so an override may still call it.
 *
 * The defaults ignore their arguments: the parameter lists belong to the image
 * library's interface. They are declared here so that any arguments may be
 * passed: a variadic prototype in C++ and C23, a declaration without a
 * prototype in older C. An image library that includes this header and has
 * prototypes of its own for the plain names defines
 * ISP_INTERFACE_OWN_PROTOTYPES before including it; the underscore names stay
 * declared. */
#ifndef IBP_ISP_INTERFACE_H
#define IBP_ISP_INTERFACE_H

#include "ibp/isp_types.h"

IBP_EXTERN_C_BEGIN

/** @defgroup isp_interface_defaults Weak default entry points
 * The 206 entry points of the camera control interface, listed once in
 * ISP_INTERFACE_TABLE. For each X(name, kind) of the table the library
 * exports a default _name (global) and name (weak alias of _name), both
 * declared as u32 name(...). The defaults ignore their arguments and do
 * what kind says: OK and ERR write the information record "func entry" of
 * the entry point, OK returns 0 and ERR ISP_DEFAULT_ERROR; QUIET returns 0
 * and writes nothing. An image library replaces an entry point by defining
 * its plain name; _name still reaches the default.
 * @{ */

/** The one non-zero result of the defaults. */
#define ISP_DEFAULT_ERROR 0x23FF

#if defined(__cplusplus) || (defined(__STDC_VERSION__) && __STDC_VERSION__ >= 202311L)
#define ISP_IF_ANY_ARGS ...
#else
/** Parameter list of the declarations: "..." in C++ and C23, none (no
 * prototype) in older C, so that any arguments may be passed. */
#define ISP_IF_ANY_ARGS
#endif

/* What a default does, the second column of the table below:
 *   OK     writes the "func entry" info record and returns 0;
 *   ERR    writes it and returns ISP_DEFAULT_ERROR;
 *   QUIET  returns 0 and writes nothing.
 * A user of the table pastes the column onto ISP_IF_RESULT_ / ISP_IF_LOGS_. */
#define ISP_IF_RESULT_OK 0u                        /**< result of an OK default */
#define ISP_IF_RESULT_ERR ((u32)ISP_DEFAULT_ERROR) /**< result of an ERR default */
#define ISP_IF_RESULT_QUIET 0u                     /**< result of a QUIET default */
#define ISP_IF_LOGS_OK 1                           /**< an OK default writes its record */
#define ISP_IF_LOGS_ERR 1                          /**< an ERR default writes its record */
#define ISP_IF_LOGS_QUIET 0                        /**< a QUIET default writes nothing */

/** Every entry point, one per line: X(plain name, what the default does). */
#define ISP_INTERFACE_TABLE(X) \
    /* General */ \
    X(ISP_Load, OK) \
    X(ISP_Init, OK) \
    X(ISP_SetAlarmLight, OK) \
    X(ISP_SetSignalCallback, OK) \
    X(ISP_MessageProcess, OK) \
    X(ISP_GetImageVarFn, OK) \
    X(ISP_SetImageVarFn, OK) \
    X(ISP_GetSysLog, OK) \
    /* Focus, zoom and lens */ \
    X(ISP_InitAFParam, ERR) \
    X(ISP_CalibrateLens, ERR) \
    X(ISP_SetFocusMode, ERR) \
    X(ISP_GetFocusMode, ERR) \
    X(ISP_SetFocusParam, ERR) \
    X(ISP_GetFocusParam, ERR) \
    X(ISP_TriggerFocus, ERR) \
    X(ISP_TriggerBackFocus, ERR) \
    X(ISP_ZoomIn, ERR) \
    X(ISP_ZoomInStep, ERR) \
    X(ISP_ZoomOut, ERR) \
    X(ISP_ZoomOutStep, ERR) \
    X(ISP_ZoomStop, ERR) \
    X(ISP_SetZoomPos, ERR) \
    X(ISP_GetZoomPos, ERR) \
    X(ISP_SetZoomCut, ERR) \
    X(ISP_GetLensRatioInfo, ERR) \
    X(ISP_GetLensInfoByRatio, ERR) \
    X(ISP_GetLensInfoByZpos, ERR) \
    X(ISP_GetEqualViewRatio, ERR) \
    X(ISP_ZoomRatio, ERR) \
    X(ISP_SetZoomSpeed, ERR) \
    X(ISP_GetZoomSpeed, ERR) \
    X(ISP_GetZoomStatus, ERR) \
    X(ISP_DigitalZoomRatio, ERR) \
    X(ISP_SetZoomRatioCfg, ERR) \
    X(ISP_GetZoomRatioCfg, ERR) \
    X(ISP_FocusFar, ERR) \
    X(ISP_FocusFarStep, ERR) \
    X(ISP_FocusNear, ERR) \
    X(ISP_FocusNearStep, ERR) \
    X(ISP_FocusStop, ERR) \
    X(ISP_GetFocusPos, ERR) \
    X(ISP_SetFocusPos, ERR) \
    X(ISP_SetRelativeFocusPos, ERR) \
    X(ISP_GetFocusPosRange, ERR) \
    X(ISP_GetFocusStatus, ERR) \
    X(ISP_SetFocusSpeed, ERR) \
    X(ISP_GetFocusSpeed, ERR) \
    X(ISP_ZoomFocusPos, ERR) \
    X(ISP_EnableIRFocus, ERR) \
    X(ISP_SetCurveType, ERR) \
    X(ISP_SetStandardBackFocusPos, ERR) \
    X(ISP_SetLensType, OK) \
    X(ISP_BackFocusCtrl, ERR) \
    X(ISP_ResetMotorZoomFocus, ERR) \
    X(ISP_GetMaxZoomRatio, ERR) \
    X(ISP_SetAFType, ERR) \
    X(ISP_SetDZoomRatioCfg, ERR) \
    X(ISP_SetDigitalZoomMode, ERR) \
    X(ISP_SetDZoomTeleOrWide, ERR) \
    X(ISP_GetDZoomPos, ERR) \
    X(ISP_SetDZoomPos, ERR) \
    X(ISP_GetDCLensZoomTime, ERR) \
    X(ISP_SetFocusStatistics, ERR) \
    X(ISP_GetRawFocusValue, ERR) \
    X(ISP_GetZoomCount, ERR) \
    X(ISP_GetLensType, ERR) \
    X(ISP_EnableQuickAF, ERR) \
    X(ISP_SetQuickAFCaliState, ERR) \
    X(ISP_SetQuickAFCaliData, ERR) \
    X(ISP_SetZoomTrackLevel, ERR) \
    X(ISP_GetStabStatus, ERR) \
    X(ISP_ZoomRatioOnDistance, ERR) \
    X(ISP_SetFocusStep, ERR) \
    X(ISP_SetZoomStep, ERR) \
    X(ISP_LockZoomFocus, ERR) \
    X(ISP_StabSetBrushStatus, ERR) \
    X(ISP_GetMaxOptZoomRatio, ERR) \
    X(ISP_EnableAxisCorrect, ERR) \
    X(ISP_StabSetPTStatus, ERR) \
    X(ISP_SetAutoFocusStatus, ERR) \
    /* Lens calibration commands */ \
    X(ISP_CLI_LensPowerOn, ERR) \
    X(ISP_CLI_LensPowerOff, ERR) \
    X(ISP_CLI_AbfReset, ERR) \
    X(ISP_CLI_StartLensMotorError, ERR) \
    X(ISP_CLI_StartTeleFocus, ERR) \
    X(ISP_CLI_ZoomRatio, ERR) \
    X(ISP_CLI_CheckLensMotorError, ERR) \
    X(ISP_CLI_CheckTeleFocus, ERR) \
    X(ISP_CLI_GetInfFocusPos, ERR) \
    X(ISP_CLI_SetFocusPos, ERR) \
    X(ISP_CLI_GetBackFoucsStatus, ERR) \
    X(ISP_CLI_SaveStandardBackFocusPos, ERR) \
    X(ISP_CLI_TriggerFocus, ERR) \
    X(ISP_CLI_GetMotorInitStat, ERR) \
    X(ISP_CLI_CheckCaliFile, ERR) \
    X(ISP_CLI_SetZoomMax, ERR) \
    X(ISP_CLI_SetZoomMin, ERR) \
    X(ISP_CLI_PrepCalibrateLens, ERR) \
    X(ISP_CLI_StartCalibrateLens, ERR) \
    X(ISP_CLI_GetCaliResult, ERR) \
    X(ISP_CLI_RefreshCaliData, ERR) \
    X(ISP_CLI_PrepAxisCalibration, ERR) \
    X(ISP_CLI_AxisCalibration, ERR) \
    X(ISP_CLI_GetAxisCaliResult, ERR) \
    /* Scene and image state: setters */ \
    X(ISP_SetSceneParam, OK) \
    X(ISP_SetICR, OK) \
    X(ISP_SetLightStatus, OK) \
    X(ISP_SetExposure, OK) \
    X(ISP_GetCurrentLuma, OK) \
    X(ISP_SetWhiteBalance, OK) \
    X(ISP_SetImageEnhance, OK) \
    X(ISP_SetDefog, OK) \
    X(ISP_SetLDC, OK) \
    X(ISP_SetImgStab, OK) \
    /* Scene and image state: getters */ \
    X(ISP_GetExposure, ERR) \
    X(ISP_GetWhiteBalance, ERR) \
    X(ISP_GetImageEnhance, ERR) \
    X(ISP_GetDefog, ERR) \
    X(ISP_GetImgStab, ERR) \
    X(ISP_GetImgStabCap, ERR) \
    /* Light, filters and peripherals */ \
    X(ISP_SetSmartIrParam, OK) \
    X(ISP_SetFishEyeInstallMode, OK) \
    X(ISP_SetLightMode, OK) \
    X(ISP_SetTGPeripheral, OK) \
    X(ISP_SetFlashlight, OK) \
    X(ISP_SetPolarizer, OK) \
    X(ISP_SetNDFilter, OK) \
    X(ISP_SetVehicleBrightness, OK) \
    X(ISP_CtrlPolarizer, OK) \
    X(ISP_SetLensModel, OK) \
    X(ISP_SetLensParam, OK) \
    X(ISP_SetIrHeater, OK) \
    X(ISP_SetLensIrisOpen, OK) \
    X(ISP_SetLensIrisClose, OK) \
    X(ISP_SetLensIrisStop, OK) \
    X(ISP_SetInstallHeight, OK) \
    X(ISP_SetSmartMeterInfo, OK) \
    X(ISP_SetParkingInfo, OK) \
    X(ISP_GetISPJpegInfo, OK) \
    X(ISP_GetPeriphStatus, QUIET) \
    X(ISP_SetVirCoilStatus, OK) \
    /* Callback registration */ \
    X(ISP_SetLightCtrlCallback, OK) \
    X(ISP_SetLightGroupCtrlCallback, OK) \
    X(ISP_SetPTZInfoCallback, OK) \
    X(ISP_SetLaserCtrlCallback, OK) \
    X(ISP_SetDayNightSwitchCallback, OK) \
    X(ISP_SetDayNightCallback, OK) \
    X(ISP_SetOpticalFogSwitchCallback, OK) \
    X(ISP_SetLdrValueCallback, OK) \
    X(ISP_SetImageStableCallback, OK) \
    X(ISP_SetNotifyFltSwitchCallback, OK) \
    /* Exposure */ \
    X(ISP_SetAEMode, OK) \
    X(ISP_SetAEMeteringMode, OK) \
    X(ISP_SetAEMeteringArea, OK) \
    X(ISP_SetAEComp, OK) \
    X(ISP_GetAEIris, OK) \
    X(ISP_SetAEIris, OK) \
    X(ISP_SetAEShutter, OK) \
    X(ISP_GetAEShutter, OK) \
    X(ISP_SetAEGain, OK) \
    X(ISP_GetAEGain, OK) \
    X(ISP_SetAEIrisRange, OK) \
    X(ISP_SetAEShutterRange, OK) \
    X(ISP_SetAEGainRange, OK) \
    X(ISP_SetSlowShutterMode, OK) \
    X(ISP_SetSlowShutterLimit, OK) \
    /* Wide dynamic range and day/night */ \
    X(ISP_SetWDRMode, OK) \
    X(ISP_SetWDRLevel, OK) \
    X(ISP_SetBlackWhiteMode, OK) \
    X(ISP_GetBlackWhiteState, OK) \
    X(ISP_SetBlackWhiteSense, OK) \
    /* White balance */ \
    X(ISP_SetAWBMode, OK) \
    X(ISP_SetAWBRGain, OK) \
    X(ISP_GetAWBRGain, OK) \
    X(ISP_SetAWBBGain, OK) \
    X(ISP_GetAWBBGain, OK) \
    /* Picture adjustment */ \
    X(ISP_SetBrightness, OK) \
    X(ISP_SetContrast, OK) \
    X(ISP_SetSaturation, OK) \
    X(ISP_SetSharpeness, OK) \
    X(ISP_SetHue, OK) \
    X(ISP_SetDenoise2D, OK) \
    X(ISP_SetDenoise3D, OK) \
    X(ISP_SetMirrorMode, OK) \
    /* Capabilities and compound settings */ \
    X(ISP_GetSceneCap, OK) \
    X(ISP_GetExpModeCap, OK) \
    X(ISP_SetDomeType, OK) \
    X(ISP_SetSlowShutter, OK) \
    X(ISP_SetWDR, OK) \
    X(ISP_SetDayNight, OK) \
    X(ISP_SetDenoiseParam, OK) \
    X(ISP_SetFacePicOpt, OK) \
    /* Thermal */ \
    X(ISP_CalcKFParam, OK) \
    X(ISP_GetKFParamCalcRes, OK) \
    X(ISP_SetBlackBodyInfo, OK) \
    X(ISP_GetNoBlackBodyCap, OK) \
    X(ISP_SetHumanTemperOffset, OK) \
    X(ISP_SetEnvironmentTemper, OK) \
    X(ISP_FaceAreaVisible2Thermal, OK) \
    X(IMG_GetThermalFrozenStat, OK) \
    X(ISP_GetHumanSurfaceTemper, OK) \
    X(ISP_GetHumanInternalTemper, OK) \
    X(ISP_GetRuleTemper, OK) \
    X(ISP_GetFireDetectRes, OK) \
    /* Other */ \
    X(ISP_SetTGWinOptEnable, OK) \
    X(ISP_WindowProc, OK)

/* Before C23 the declarations have no prototype on purpose: the parameters
 * are the image library's to state, not this library's. A consumer that
 * builds with -Wstrict-prototypes is not told so 412 times. */
#if !defined(__cplusplus) && defined(__GNUC__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wstrict-prototypes"
#endif

/** Declares the default _name of one row of the table. */
#define ISP_IF_DECLARE_DEFAULT(name, kind) IBP_API u32 _##name(ISP_IF_ANY_ARGS);
ISP_INTERFACE_TABLE(ISP_IF_DECLARE_DEFAULT)
#undef ISP_IF_DECLARE_DEFAULT

#ifndef ISP_INTERFACE_OWN_PROTOTYPES
/** Declares the weak entry point name of one row of the table. */
#define ISP_IF_DECLARE_ENTRY(name, kind) IBP_API u32 name(ISP_IF_ANY_ARGS);
ISP_INTERFACE_TABLE(ISP_IF_DECLARE_ENTRY)
#undef ISP_IF_DECLARE_ENTRY
#endif

#if !defined(__cplusplus) && defined(__GNUC__)
#pragma GCC diagnostic pop
#endif

/** @} */

IBP_EXTERN_C_END

#endif /* IBP_ISP_INTERFACE_H */
