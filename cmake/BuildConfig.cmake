# Build-time defaults of the service configuration. Every value is empty in the
# repository; a deployment passes real ones with -D, and KUTILS_CONFIG_FILE
# overrides them at run time (docs/configuration.md).
set(_kutils_config_keys
  VIDEO_API_PRODUCTION VIDEO_API_STAGING ACCOUNT_API_PRODUCTION ACCOUNT_API_STAGING
  CLOUD_UNUSED_KEY CLOUD_API_KEY_PRODUCTION CLOUD_API_KEY_STAGING
  MODEL_HOST MODEL_PASSWORD DOWNLOAD_HOST
  EVENT_COLLECTOR_URL SEGMENT_WRITE_KEY_PRODUCTION SEGMENT_WRITE_KEY_DEVELOPMENT
  AMPLITUDE_VARDATA_URL AMPLITUDE_PROFILE_URL AMPLITUDE_IDENTIFY_URL
  AMPLITUDE_PROJECT_KEY AMPLITUDE_SECRET
  APP_STATE_PRODUCTION APP_STATE_STAGING APP_STATE_API_KEY EMAIL_MAC_SALT
  ARCHIVE_PASSWORD CA_BUNDLE MPV_EXTRA_OPTIONS TRANSFER_TIMEOUT_MS)
foreach(_key IN LISTS _kutils_config_keys)
  set(KUTILS_${_key} "" CACHE STRING "Service configuration default: ${_key}")
  # The values end up in C++ raw string literals.
  set(KUTILS_CFG_${_key} "${KUTILS_${_key}}")
endforeach()
configure_file(${CMAKE_SOURCE_DIR}/cmake/BuildConfig.h.in
               ${CMAKE_BINARY_DIR}/generated/kutils/BuildConfig.h @ONLY)
