"""What random panels choose their values from."""

HOSTILE_NAMES = ("o'brien.test", 'say"hi".test', "back\\slash.test", "sl/ash.test", "a/../b.test", "line\nend.test",
                 ".", "..", "", "x＇y.test", "wide／slash.test", "‥", "tab\there.test", "del\x7f.test")
HOSTILE_LABELS = ("..", "", ".", "../../victim.test", "a/b", "it's", 'a"b', "a\\b", "a\nb", "\x7f")

# With no quote, backslash, slash or control character.
ODD_LABELS = ("bücher", "Straße", "例え", "ÑANDÚ", "UPPER", "under_score", "a b", "50%s", "%n%d", "*", "$(id)", "a;b",
              "<x>", "~", "xn--bcher-kva", "-", "a&b", "b" * 63)
TOO_LONG_FOR_A_DIRECTORY = ".".join(["é" * 30] * 5)
UNCONVERTIBLE = ("c" * 64 + ".test", "two..dots.test", "xn--ü.test")

ODD_LOGINS = ("müller", "o'neil", "a b", 'q"q', "%s", "back\\slash", "x" * 64, "root", "", "ab:c", "line\nend")
ODD_HOSTING_TYPES = (None, "", "vrt", "VRT_HST", "vrt_hst ", "vrt_hst2", "std_fwd2", "STD_FWD", "frm_fw")

LIMITS = (None, "", "0", "1", "65536")
ODD_LIMITS = ("-1", "-7", "4294967296", "2147483648", "99999999999", "12abc", "abc", " 7", "+3", "9223372036854775807")

ODD_FLAGS = (None, "", "trueish", "true ", "TRUE", "True", "tru", " true", "1", "on", "trüe", "false", "false true")
ODD_TEXTS = (None, "", "x", "it's", 'a "quoted" text', "back\\slash\\", "ü ñ 例", "%s%n%d", "line\nend", "a\tb", "#",
             "<b>", "y" * 250, " ", "$HOME ${x}", "\r", "＇＂＼", "true", "null")

REDIRECTS = ("http://shop.test/", "https://secure.test/path?a=b", "ftp://files.test", "plain.test/path",
             "http://user@host.test:8080/x", "http://xn--bcher-kva.example/", "deep.test/a/b#c")
ODD_REDIRECTS = ("HTTP://SHOP.test", "HTTP://SHOP.test", "Https://Shop.test/", "FTP://x",
                 "http://user@bücher.example/path?q=1", "bücher.example:8080/x", "", "/", "http://", "http:///x", "@",
                 "a@", "a@b@c.test", ":80", "d" * 64, "http://" + "e" * 64 + "/x", "a\nb", 'q"q', "it's",
                 "http://h.test/a@b", "https:x", None, "ftp://ü", "http://" + "f" * 1000, "x..y", "//z", "例え.test/ü")

PATHS = ("private", "/private", "/private/area", "docs/", "quarry-stat", "/quarry-stat/logs", "a b", "/", "old.html")
ODD_PATHS = ("", "//", "a//b", "/quarry-stat/", "quarry-statistics", "/quarry-statx/y", "quarry-stat/ü", "..", "../x",
             "*", "a@b", "üñ", 'q"q', "it's", "b\\c", "%s", "line\nend", "g" * 1000, "例/" * 80)

VERSIONS = ("2.2.3", "2.0.54", "2.0.55", "2.2.15", "2.0.40", "2.2.0", "2.0.65", "2.0.0", "2.0.100", "2.2.54")
