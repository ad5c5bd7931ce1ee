# Stand-in for OpenWrt's /lib/functions/procd.sh: records every procd_*
# call, one line each ("name arg arg ..."), in $QZ_PROCD_LOG instead of
# sending the service to procd over ubus. Like the real one it loads jshn.
# shellcheck shell=sh

# shellcheck source=/dev/null
. "${QZ_STUBS:?}/usr/share/libubox/jshn.sh"

_procd_record() {
	printf '%s\n' "$*" >>"${QZ_PROCD_LOG:?}"
}

procd_open_service() { _procd_record procd_open_service "$@"; }
procd_open_instance() { _procd_record procd_open_instance "$@"; }
procd_set_param() { _procd_record procd_set_param "$@"; }
procd_append_param() { _procd_record procd_append_param "$@"; }
procd_close_instance() { _procd_record procd_close_instance "$@"; }
procd_add_reload_trigger() { _procd_record procd_add_reload_trigger "$@"; }

procd_close_service() {
	if command -v service_triggers >/dev/null 2>&1; then
		service_triggers
	fi
	_procd_record procd_close_service
}

# The real function runs the validation function without a section name:
# uci_validate_section then describes its rules for "ubus call service
# validate" instead of checking a section.
procd_add_validation() {
	_procd_record procd_add_validation "$@"
	"$@"
}

uci_validate_section() {
	if [ -n "$3" ]; then
		echo "procd.sh stand-in: uci_validate_section checks no section" >&2
		return 1
	fi
	_procd_record uci_validate_section "$@"
}
