package Tovel::Agent::SampleSource;
# The hosting objects of a source host as the reference agent sees them: a
# directory tree (see README.md) instead of a control panel's database.
#
#   server/info                  hostname, os, ip (repeatable)
#   server/license               key, expires
#   server/admin                 name, email, company
#   resellers/NAME/info          contact, email
#   clients/NAME/info            owner (a reseller; none: the admin's),
#                                contact, email
#   domains/NAME/info            owner (a client), ip
#   domains/NAME/site/...        web content
#   domains/NAME/mail/BOX/...    mailboxes (maildir: cur/, new/)
use strict;
use warnings;
use Tovel::Agent::Files qw(read_settings);

my %KEYS = (
    server   => { hostname => 1, os => 1, ip => 2 },
    license  => { key => 1, expires => 1 },
    admin    => { name => 1, email => 1, company => 1 },
    reseller => { contact => 1, email => 1 },
    client   => { owner => 1, contact => 1, email => 1 },
    domain   => { owner => 1, ip => 1 },
);

# The settings of one info file as a hash; a key marked 2 above collects
# its values in an array. Unknown and repeated keys are errors, so that a
# typo in the data does not pass unnoticed.
sub read_info {
    my ($path, $kind, $optional) = @_;
    my %info;
    for my $pair (read_settings($path, $optional)) {
        my ($key, $value) = @$pair;
        my $arity = $KEYS{$kind}{$key}
            or die "$path: unknown $kind setting '$key'\n";
        if ($arity == 2) {
            push @{ $info{$key} }, $value;
        } else {
            die "$path: '$key' is given twice\n" if exists $info{$key};
            $info{$key} = $value;
        }
    }
    return \%info;
}

# Names of the subdirectories of dir, sorted.
sub subdirectories {
    my ($dir) = @_;
    opendir my $handle, $dir or return ();
    my @names = sort grep { !/^\./ && -d "$dir/$_" } readdir $handle;
    closedir $handle;
    return @names;
}

# Reads the tree under root. Dies when root is not a readable directory or
# the data is inconsistent (an owner that does not exist).
sub load {
    my ($class, $root) = @_;
    die "Source data directory $root does not exist\n" unless -d $root;
    my $self = bless { root => $root }, $class;
    $self->{server} = read_info("$root/server/info", 'server');
    $self->{license} = read_info("$root/server/license", 'license', 1);
    $self->{admin} = read_info("$root/server/admin", 'admin', 1);
    for my $kind (qw(reseller client domain)) {
        for my $name (subdirectories("$root/${kind}s")) {
            my $info = read_info("$root/${kind}s/$name/info", $kind);
            $self->{$kind}{$name} =
                { %$info, name => $name, dir => "$root/${kind}s/$name" };
        }
    }
    $self->check_owners('client', 'reseller', 0);
    $self->check_owners('domain', 'client', 1);
    return $self;
}

sub check_owners {
    my ($self, $kind, $owner_kind, $required) = @_;
    for my $object (values %{ $self->{$kind} || {} }) {
        my $owner = $object->{owner};
        die "$kind $object->{name} has no owner\n"
            if $required && !defined $owner;
        die "$kind $object->{name}: owner $owner is not a known $owner_kind\n"
            if defined $owner && !$self->{$owner_kind}{$owner};
    }
}

sub server { return $_[0]{server} }
sub license { return $_[0]{license} }
sub admin { return $_[0]{admin} }
# The object of a kind ("reseller", "client", "domain") and name.
sub object { return $_[0]{ $_[1] }{ $_[2] } }
# Sorted names of the objects of a kind.
sub names { return sort keys %{ $_[0]{ $_[1] } || {} } }
# The number of objects of a kind.
sub count { return scalar keys %{ $_[0]{ $_[1] } || {} } }

# Sorted names of the objects of kind whose owner is one of owners.
sub owned_by {
    my ($self, $kind, @owners) = @_;
    my %wanted = map { $_ => 1 } @owners;
    return grep { my $o = $self->{$kind}{$_}{owner}; defined $o && $wanted{$o} }
        $self->names($kind);
}

# What a dump covers: a hash of kind to sorted names. All objects for
# --dump-all; otherwise the named ones, a reseller bringing its clients and
# a client its domains. Dies on a name that does not exist.
sub selection {
    my ($self, $args) = @_;
    my %chosen = map { $_ => {} } qw(reseller client domain);
    if ($args->{all}) {
        $chosen{$_} = { map { $_ => 1 } $self->names($_) } for keys %chosen;
    } else {
        for my $pair ([reseller => 'resellers'], [client => 'clients'],
                      [domain => 'domains']) {
            my ($kind, $list) = @$pair;
            for my $name (@{ $args->{$list} }) {
                die "Unknown $kind '$name'\n" unless $self->{$kind}{$name};
                $chosen{$kind}{$name} = 1;
            }
        }
        $chosen{client}{$_} = 1
            for $self->owned_by('client', keys %{ $chosen{reseller} });
        $chosen{domain}{$_} = 1
            for $self->owned_by('domain', keys %{ $chosen{client} });
    }
    return { map { $_ => [ sort keys %{ $chosen{$_} } ] } keys %chosen };
}

1;
