# Stand-in for OpenWrt's /lib/functions.sh: the UCI part, as documented.
# config_load evaluates "uci export", whose lines call config, option and
# list; each of them stores CONFIG_<section>_<option> and calls the
# script's callback. UCI_CONFIG_DIR names the configuration directory.
# shellcheck shell=sh

reset_cb() {
	config_cb() { return 0; }
	option_cb() { return 0; }
	list_cb() { return 0; }
}
reset_cb

config_set() {
	eval "CONFIG_${1}_${2}=\$3"
}

package() {
	return 0
}

config() {
	CONFIG_NUM_SECTIONS=$((CONFIG_NUM_SECTIONS + 1))
	CONFIG_SECTION=${2:-cfg$CONFIG_NUM_SECTIONS}
	CONFIG_SECTIONS="$CONFIG_SECTIONS $CONFIG_SECTION"
	config_set "$CONFIG_SECTION" TYPE "$1"
	config_cb "$1" "$CONFIG_SECTION"
}

option() {
	_name=$1
	shift
	config_set "$CONFIG_SECTION" "$_name" "$*"
	option_cb "$_name" "$*"
}

list() {
	_name=$1
	shift
	eval "_old=\${CONFIG_${CONFIG_SECTION}_${_name}}"
	# shellcheck disable=SC2154  # set by the eval
	config_set "$CONFIG_SECTION" "$_name" "${_old:+$_old }$*"
	list_cb "$_name" "$*"
}

config_load() {
	CONFIG_SECTIONS=
	CONFIG_NUM_SECTIONS=0
	CONFIG_SECTION=
	_data=$(uci ${UCI_CONFIG_DIR:+-c "$UCI_CONFIG_DIR"} -S -n export "$1" 2>/dev/null)
	_ret=$?
	[ "$_ret" != 0 ] || [ -z "$_data" ] || eval "$_data"
	${CONFIG_SECTION:+config_cb}
	return "$_ret"
}

# config_get VAR SECTION OPTION [DEFAULT]; or SECTION OPTION: prints it.
config_get() {
	case $# in
	2) eval "printf '%s\\n' \"\${CONFIG_${1}_${2}}\"" ;;
	*) eval "$1=\${CONFIG_${2}_${3}:-\$4}" ;;
	esac
}

config_get_bool() {
	config_get _bool "$2" "$3" "$4"
	case $_bool in
	1 | on | true | yes | enabled) _bool=1 ;;
	0 | off | false | no | disabled) _bool=0 ;;
	*) _bool=$4 ;;
	esac
	eval "$1=\$_bool"
}
