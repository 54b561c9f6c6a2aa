# Completion of zelvanctl for bash.

# The words that may follow: options of every command, of the nouns and of the verbs.  One place to change when a command
# gets a new option.
_zelvanctl_words() {
  local new_token='--type --digits --window --step --counter --serial --qr --issuer'
  case "$1" in
    '') echo 'db user token audit config probe doctor' ;;
    common) echo '--config --login --password-file --json --yes --show-secrets --help --version' ;;
    db) echo 'init check' ;;
    user) echo 'add list set remove show lock unlock disable enable' ;;
    token) echo 'new list show qr resync replace remove import export' ;;
    config) echo 'check list get set unset' ;;
    audit) echo '--user --since --failed --follow --directory' ;;
    probe) echo '--server --chap --secret-file --timeout' ;;
    doctor | 'config check') echo '--directory' ;;
    'config get' | 'config set' | 'config unset') echo '--section' ;;
    'db init') echo '--multi-server' ;;
    'user add') echo "--mail --pin --pin-value --token $new_token" ;;
    'user list') echo '--locked --disabled --active --match --type --unused-since --failures --sort --reverse' ;;
    'user set') echo '--mail --pin --pin-value --no-pin --token' ;;
    'user remove') echo '--keep-token' ;;
    'token new') echo "$new_token" ;;
    'token list' | 'token export') echo '--spare' ;;
    'token show') echo '--serial' ;;
    'token qr') echo '--serial --issuer' ;;
    'token resync') echo '--serial --window --backward --just-read' ;;
    'token replace') echo "--keep-old $new_token" ;;
    'token import') echo '--dry-run' ;;
  esac
}

_zelvanctl_keys='otp_dsn otp_uid otp_pwd otp_dbtype radius_port otp_packetchecktime otp_maxthread otp_maxidletime
  otp_qent100 otp_qent200 otp_qent300 otp_wnd otp_keylen otp_logmode otp_logcond otp_max_accum otp_logpath otp_logsize
  otp_mail_need smtp_auth_need otp_smtp_server mail_from mail_subject otp_smtp_port smtp_auth_user smtp_auth_pwd 0.0.0.0'

# Options that take a value.
_zelvanctl_takes_value() {
  case "$1" in
    --config | --login | --password-file | --mail | --pin-value | --token | --type | --digits | --window | --step | --counter | --serial | --issuer | \
      --match | --unused-since | --failures | --sort | --user | --since | --directory | --section | --server | \
      --secret-file | --timeout) return 0 ;;
  esac
  return 1
}

# The values of the option before the word, or nothing when it takes any text.
_zelvanctl_values() {
  local word="$2"
  case "$1" in
    --type) mapfile -t COMPREPLY < <(compgen -W 'time event challenge' -- "$word") ;;
    --sort) mapfile -t COMPREPLY < <(compgen -W 'name last failures serial' -- "$word") ;;
    --config | --secret-file | --password-file) mapfile -t COMPREPLY < <(compgen -f -- "$word") ;;
    --directory) mapfile -t COMPREPLY < <(compgen -d -- "$word") ;;
  esac
}

_zelvanctl() {
  local word="${COMP_WORDS[COMP_CWORD]}" noun='' verb='' i
  COMPREPLY=()
  if _zelvanctl_takes_value "${COMP_WORDS[COMP_CWORD - 1]}"; then
    _zelvanctl_values "${COMP_WORDS[COMP_CWORD - 1]}" "$word"
    return
  fi
  for ((i = 1; i < COMP_CWORD; ++i)); do
    if _zelvanctl_takes_value "${COMP_WORDS[i]}"; then
      ((++i))
    elif [[ "${COMP_WORDS[i]}" == -* ]]; then
      continue
    elif [[ -z "$noun" ]]; then
      noun="${COMP_WORDS[i]}"
    elif [[ -z "$verb" ]]; then
      verb="${COMP_WORDS[i]}"
    fi
  done

  local command="$noun"
  case "$noun" in
    db | user | token | config) [[ -n "$verb" ]] && command="$noun $verb" ;;
  esac
  local words
  words="$(_zelvanctl_words "$command")"
  if [[ "$word" == -* ]]; then
    mapfile -t COMPREPLY < <(compgen -W "$words $(_zelvanctl_words common)" -- "$word" | grep '^-')
  elif [[ "$command" == 'config '[gsu]* ]]; then
    mapfile -t COMPREPLY < <(compgen -W "$_zelvanctl_keys" -- "$word")
  elif [[ "$command" == 'token import' || "$command" == 'token export' ]]; then
    mapfile -t COMPREPLY < <(compgen -f -- "$word")
  elif [[ "$words" != -* ]]; then
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$word")
  fi
}

complete -F _zelvanctl zelvanctl
