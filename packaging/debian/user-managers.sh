# Shared by the maintainer scripts (each script carries a copy: the package build pastes this
# file where "#USER_MANAGERS#" stands).
#
# systemctl --user for every user whose service manager is running, as that user: a user's
# manager answers only its own user, through that user's runtime folder.
each_user_manager() {
  for dir in /run/user/*; do
    [ -S "$dir/systemd/private" ] || continue
    user=$(getent passwd "${dir##*/}" | cut -d: -f1) || continue
    [ -n "$user" ] || continue
    XDG_RUNTIME_DIR=$dir runuser -u "$user" -- systemctl --user --quiet "$@" || true
  done
}
